// For the pseudo console, which came with a later Windows 10 than the first.
#undef NTDDI_VERSION
#define NTDDI_VERSION 0x0A000006

#include "test_console.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#ifndef PROC_THREAD_ATTRIBUTE_PSEUDOCONSOLE
#define PROC_THREAD_ATTRIBUTE_PSEUDOCONSOLE 0x00020016  // mingw-w64 lacks it
#endif

namespace system_test {

namespace {

constexpr COORD kSize{400, 60};  // no line is wrapped

[[noreturn]] void FailLast(const char* what) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

struct Pipe {
    UniqueHandle readEnd;
    UniqueHandle writeEnd;

    Pipe() {
        HANDLE read = nullptr;
        HANDLE write = nullptr;
        if (!::CreatePipe(&read, &write, nullptr, 0))
            FailLast("CreatePipe");
        readEnd.reset(read);
        writeEnd.reset(write);
    }
};

BOOL WINAPI Ignore(DWORD) {
    return TRUE;
}

}  // namespace

/// The console itself, and a program that keeps it until this process has come to it: the shell,
/// which waits for its input to end.
struct TestConsole::PseudoConsole {
    Pipe input;
    Pipe output;
    Pipe keeperInput;
    HPCON handle = nullptr;
    UniqueHandle keeper;
    DWORD keeperId = 0;
    std::thread reader;  // discards the output for a terminal, which must be read

    PseudoConsole() {
        if (FAILED(::CreatePseudoConsole(kSize, input.readEnd.get(), output.writeEnd.get(), 0,
                                         &handle)))
            throw std::runtime_error("CreatePseudoConsole failed");
        input.readEnd.reset();
        output.writeEnd.reset();
        reader = std::thread([this] {
            std::byte buffer[4096];
            DWORD count = 0;
            while (::ReadFile(output.readEnd.get(), buffer, sizeof(buffer), &count, nullptr)) {
            }
        });
        StartKeeper();
    }

    ~PseudoConsole() {
        keeperInput.writeEnd.reset();
        ::ClosePseudoConsole(handle);
        reader.join();
    }

    PseudoConsole(const PseudoConsole&) = delete;
    PseudoConsole& operator=(const PseudoConsole&) = delete;

    void StartKeeper() {
        SIZE_T size = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        const auto memory = std::make_unique<std::byte[]>(size);
        auto* const attributes = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory.get());
        if (!::InitializeProcThreadAttributeList(attributes, 1, 0, &size) ||
            !::UpdateProcThreadAttribute(attributes, 0, PROC_THREAD_ATTRIBUTE_PSEUDOCONSOLE, handle,
                                         sizeof(handle), nullptr, nullptr))
            FailLast("UpdateProcThreadAttribute");
        ::SetHandleInformation(keeperInput.readEnd.get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
        STARTUPINFOEXW startup{};
        startup.StartupInfo.cb = sizeof(startup);
        startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
        startup.StartupInfo.hStdInput = keeperInput.readEnd.get();
        startup.lpAttributeList = attributes;
        wchar_t commandLine[] = L"cmd.exe";
        PROCESS_INFORMATION information{};
        if (!::CreateProcessW(nullptr, commandLine, nullptr, nullptr, TRUE,
                              EXTENDED_STARTUPINFO_PRESENT, nullptr, nullptr, &startup.StartupInfo,
                              &information))
            FailLast("CreateProcessW");
        ::CloseHandle(information.hThread);
        keeper.reset(information.hProcess);
        keeperId = information.dwProcessId;
        keeperInput.readEnd.reset();
    }
};

TestConsole::TestConsole() : console(std::make_unique<PseudoConsole>()) {
    ::FreeConsole();
    // Nothing tells when the keeper has got to its console.
    for (const Deadline deadline; !::AttachConsole(console->keeperId); ::Sleep(5)) {
        if (deadline.Over())
            FailLast("AttachConsole");
    }
    ::SetConsoleCtrlHandler(Ignore, TRUE);
    SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
    screen = OwnFile(::CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE, &inheritable, OPEN_EXISTING,
                                   0, nullptr));
    if (!screen)
        FailLast("CONOUT$");
}

TestConsole::~TestConsole() {
    if (process)
        ::TerminateProcess(process.get(), 1);
    screen.reset();
    ::SetConsoleCtrlHandler(Ignore, FALSE);
    ::FreeConsole();
}

void TestConsole::Start(const std::wstring& path, const std::wstring& arguments) {
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = screen.get();
    startup.hStdError = screen.get();
    std::wstring commandLine = L"\"" + path + L"\" " + arguments;
    PROCESS_INFORMATION information{};
    if (!::CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr,
                          nullptr, &startup, &information))
        FailLast("CreateProcessW");
    ::CloseHandle(information.hThread);
    process.reset(information.hProcess);
}

DWORD TestConsole::WaitForEnd() {
    const Deadline deadline;
    if (::WaitForSingleObject(process.get(), deadline.MillisecondsLeft()) != WAIT_OBJECT_0)
        throw std::runtime_error("the program does not end");
    DWORD exitCode = 0;
    ::GetExitCodeProcess(process.get(), &exitCode);
    return exitCode;
}

void TestConsole::PressCtrlC() {
    if (!::GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0))
        FailLast("GenerateConsoleCtrlEvent");
}

void TestConsole::CloseWindow() {
    // The system starts this function in the program, too. ClosePseudoConsole cannot be used: Wine
    // then ends the programs without the event.
    const auto deliver = reinterpret_cast<LPTHREAD_START_ROUTINE>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"kernelbase.dll"), "CtrlRoutine")));
    const auto event = reinterpret_cast<void*>(std::uintptr_t{CTRL_CLOSE_EVENT});
    const UniqueHandle thread(
        ::CreateRemoteThread(process.get(), nullptr, 0, deliver, event, 0, nullptr));
    if (!thread)
        FailLast("CreateRemoteThread");
}

std::vector<std::string> TestConsole::Screen() const {
    std::vector<std::string> lines;
    for (SHORT row = 0; row < kSize.Y; ++row) {
        std::wstring line(kSize.X, L' ');
        DWORD count = 0;
        if (!::ReadConsoleOutputCharacterW(screen.get(), line.data(), kSize.X, {0, row}, &count))
            FailLast("ReadConsoleOutputCharacterW");
        line.resize(count);
        line.resize(line.find_last_not_of(L' ') + 1);
        lines.push_back(ToUtf8(line));
    }
    while (!lines.empty() && lines.back().empty())
        lines.pop_back();
    return lines;
}

}  // namespace system_test
