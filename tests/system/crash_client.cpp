// A program that is not the service and uses its crash server:
//
//   crash_client register     registers and ends
//   crash_client register-once
//                             the same, with one attempt
//   crash_client crash EVENT  registers, and crashes when the event is set
//   crash_client silent       connects and says nothing, until it is ended
//   crash_client half         asks to be registered, and ends without taking the answer
//   crash_client die MILLIS   registers, asks for a dump, and ends so many milliseconds later,
//                             whether the dump has been written or not
//
// It prints a line when it has come that far. Links little: each DLL adds to the time of a dump.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <thread>

#include <windows.h>

#include <client/windows/crash_generation/crash_generation_client.h>
#include <client/windows/handler/exception_handler.h>

#include "protocol/message.h"
#include "windows/unique_handle.h"

namespace {

using google_breakpad::ExceptionHandler;

constexpr int kAttemptsBesideOthers = 30;  // which get in between

void Say(const char* line) {
    std::puts(line);
    std::fflush(stdout);
}

bool SayWhetherDumped(const wchar_t* /*folder*/, const wchar_t* /*id*/, void* /*context*/,
                      EXCEPTION_POINTERS* /*exception*/, MDRawAssertionInfo* /*assertion*/,
                      bool succeeded) {
    Say(succeeded ? "dumped" : "not dumped");
    return succeeded;
}

/// Null if the server does not answer. The library gives up after four seconds, and at once if
/// another client takes the pipe at the wrong moment.
std::unique_ptr<ExceptionHandler> Register(int attempts) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        auto handler = std::make_unique<ExceptionHandler>(L".", nullptr, SayWhetherDumped, nullptr,
                                                          ExceptionHandler::HANDLER_ALL,
                                                          MiniDumpNormal, kCrashPipeName, nullptr);
        if (handler->IsOutOfProcess())
            return handler;
    }
    return nullptr;
}

int Crash(const char* eventName) {
    const UniqueHandle event(::OpenEventA(SYNCHRONIZE, FALSE, eventName));
    const auto handler = Register(kAttemptsBesideOthers);
    if (!event || !handler)
        return 1;
    Say("registered");
    ::WaitForSingleObject(event.get(), INFINITE);
    // Not null: the preset "checked" has a trap of its own for that.
    auto* const nothing =
        static_cast<volatile int*>(::VirtualAlloc(nullptr, 1, MEM_RESERVE, PAGE_NOACCESS));
    *nothing = 1;
    return 0;
}

/// Waits while the server is busy with others.
UniqueHandle Connect() {
    for (;;) {
        UniqueHandle pipe = OwnFile(
            ::CreateFileW(kCrashPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                          SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
        if (pipe || ::GetLastError() != ERROR_PIPE_BUSY)
            return pipe;
        ::WaitNamedPipeW(kCrashPipeName, NMPWAIT_USE_DEFAULT_WAIT);
    }
}

int BeSilent() {
    const UniqueHandle pipe = Connect();
    if (!pipe)
        return 1;
    Say("connected");
    ::Sleep(INFINITE);
    return 0;
}

int GoHalfWay() {
    using google_breakpad::ProtocolMessage;
    const UniqueHandle pipe = Connect();
    DWORD threadId = 0;
    EXCEPTION_POINTERS* exception = nullptr;
    MDRawAssertionInfo assertion{};
    const ProtocolMessage request(google_breakpad::MESSAGE_TAG_REGISTRATION_REQUEST,
                                  ::GetCurrentProcessId(), MiniDumpNormal, &threadId, &exception,
                                  &assertion, {nullptr, 0}, nullptr, nullptr, nullptr);
    DWORD written = 0;
    const bool asked =
        pipe && ::WriteFile(pipe.get(), &request, sizeof(request), &written, nullptr);
    ::TerminateProcess(::GetCurrentProcess(), asked ? 0 : 1);
    return 1;
}

/// The exception that it reports is in memory that it has given back. The rest of its memory
/// follows when it ends, but few clients would end at just the moment when the server has opened
/// the file of the dump and reads the exception.
int Die(std::chrono::milliseconds time) {
    google_breakpad::CrashGenerationClient client(kCrashPipeName, MiniDumpNormal, nullptr);
    for (int attempt = 0; !client.Register(); ++attempt) {
        if (attempt == kAttemptsBesideOthers)
            return 1;
    }
    std::thread([time] {
        std::this_thread::sleep_for(time);
        ::TerminateProcess(::GetCurrentProcess(), 0);
    }).detach();
    void* const memory = ::VirtualAlloc(nullptr, 1, MEM_COMMIT, PAGE_READWRITE);
    ::VirtualFree(memory, 0, MEM_RELEASE);
    client.RequestDump(static_cast<EXCEPTION_POINTERS*>(memory));
    ::Sleep(INFINITE);
    return 1;
}

}  // namespace

int main(int argc, char* argv[]) {
    ::SetErrorMode(SEM_NOGPFAULTERRORBOX);  // no user sees a dialog
    const std::string_view command = argc > 1 ? argv[1] : "";
    if (command == "register")
        return Register(kAttemptsBesideOthers) ? 0 : 1;
    if (command == "register-once")
        return Register(1) ? 0 : 1;
    if (command == "crash" && argc > 2)
        return Crash(argv[2]);
    if (command == "silent")
        return BeSilent();
    if (command == "half")
        return GoHalfWay();
    if (command == "die" && argc > 2)
        return Die(std::chrono::milliseconds(std::atoi(argv[2])));
    return 1;
}
