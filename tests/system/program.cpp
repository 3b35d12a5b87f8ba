#include "program.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace system_test {

namespace {

[[noreturn]] void FailLast(const char* what) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

/// Holds the programs that the tests start, and ends them with the test program. Never closed
/// before: the system does that.
HANDLE Job() {
    static const HANDLE job = [] {
        const HANDLE made = ::CreateJobObjectW(nullptr, nullptr);
        if (made == nullptr)
            FailLast("CreateJobObjectW");
        JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
        limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
        if (!::SetInformationJobObject(made, JobObjectExtendedLimitInformation, &limits,
                                       sizeof(limits)))
            FailLast("SetInformationJobObject");
        return made;
    }();
    return job;
}

/// A pipe whose write end is for a child to inherit.
struct ChildPipe {
    UniqueHandle readEnd;
    UniqueHandle writeEnd;

    ChildPipe() {
        SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
        HANDLE read = nullptr;
        HANDLE write = nullptr;
        if (!::CreatePipe(&read, &write, &inheritable, 0))
            FailLast("CreatePipe");
        readEnd.reset(read);
        writeEnd.reset(write);
        if (!::SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0))
            FailLast("SetHandleInformation");
    }
};

/// Holds a window from the first call on. Wine ends the process of its desktop soon after the last
/// window has gone. The process that makes the next window starts it anew and passes its output on.
/// If that were a program of the tests, its output would not end with it.
void KeepDesktop() {
    static const HWND window = ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE,
                                                 nullptr, nullptr, nullptr);
    if (window == nullptr)
        FailLast("CreateWindowExW");
}

/// The one attribute of a process that is to be started. `value` must outlive it.
class AttributeList {
public:
    AttributeList(DWORD_PTR attribute, void* value, std::size_t size) {
        SIZE_T listSize = 0;
        ::InitializeProcThreadAttributeList(nullptr, 1, 0, &listSize);
        memory = std::make_unique<std::byte[]>(listSize);
        if (!::InitializeProcThreadAttributeList(Get(), 1, 0, &listSize))
            FailLast("InitializeProcThreadAttributeList");
        if (!::UpdateProcThreadAttribute(Get(), 0, attribute, value, size, nullptr, nullptr))
            FailLast("UpdateProcThreadAttribute");
    }
    ~AttributeList() { ::DeleteProcThreadAttributeList(Get()); }

    AttributeList(const AttributeList&) = delete;
    AttributeList& operator=(const AttributeList&) = delete;

    LPPROC_THREAD_ATTRIBUTE_LIST Get() const noexcept {
        return reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(memory.get());
    }

private:
    std::unique_ptr<std::byte[]> memory;
};

}  // namespace

std::wstring TestFolder() {
    std::wstring path(1024, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L'\\'));
}

std::wstring ProgramPath(const wchar_t* fileName) {
    const std::wstring folder = TestFolder();
    return folder.substr(0, folder.find_last_of(L'\\')) + L"\\bin\\" + fileName;
}

OutputLines::OutputLines(UniqueHandle readEndOfPipe)
    : readEnd(std::move(readEndOfPipe)),
      reader([this] { Run(); }) {}

OutputLines::~OutputLines() {
    reader.join();
}

void OutputLines::Run() {
    std::string text;  // the line that has no end yet
    char buffer[4096];
    DWORD count = 0;
    while (::ReadFile(readEnd.get(), buffer, sizeof(buffer), &count, nullptr) && count != 0) {
        text.append(buffer, count);
        const std::lock_guard lock(mutex);
        for (std::size_t end = 0; (end = text.find('\n')) != std::string::npos;) {
            const bool carriageReturn = end != 0 && text[end - 1] == '\r';
            lines.push_back(text.substr(0, carriageReturn ? end - 1 : end));
            text.erase(0, end + 1);
        }
        changed.notify_all();
    }
    const std::lock_guard lock(mutex);
    if (!text.empty())
        lines.push_back(text + " (no line end)");
    ended = true;
    changed.notify_all();
}

std::vector<std::string> OutputLines::WaitFor(std::string_view start, std::size_t count) {
    std::unique_lock lock(mutex);
    const bool inTime =
        changed.wait_for(lock, kDeadline, [&] { return ended || Starting(start).size() >= count; });
    std::vector<std::string> found = Starting(start);
    if (found.size() < count)
        throw std::runtime_error(std::string(inTime ? "stream ended" : "deadline passed") +
                                 " before line '" + std::string(start) + "', seen:\n" + Joined());
    return found;
}

std::vector<std::string> OutputLines::WaitForEnd() {
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, kDeadline, [&] { return ended; }))
        throw std::runtime_error("the stream does not end, seen:\n" + Joined());
    return lines;
}

std::vector<std::string> OutputLines::Lines() const {
    const std::lock_guard lock(mutex);
    return lines;
}

std::string OutputLines::Text() const {
    const std::lock_guard lock(mutex);
    return Joined();
}

std::vector<std::string> OutputLines::Starting(std::string_view start) const {
    std::vector<std::string> found;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                 [start](const std::string& line) { return line.starts_with(start); });
    return found;
}

std::string OutputLines::Joined() const {
    std::string text;
    for (const std::string& line : lines)
        text += "  " + line + "\n";
    return text;
}

Program::Program(const std::wstring& path, const std::wstring& arguments) {
    KeepDesktop();
    ChildPipe standardOutput;
    ChildPipe standardError;
    HANDLE job = Job();
    const AttributeList attributes(PROC_THREAD_ATTRIBUTE_JOB_LIST, &job, sizeof(job));
    STARTUPINFOEXW startup{};
    startup.StartupInfo.cb = sizeof(startup);
    startup.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    startup.StartupInfo.hStdOutput = standardOutput.writeEnd.get();
    startup.StartupInfo.hStdError = standardError.writeEnd.get();
    startup.lpAttributeList = attributes.Get();
    std::wstring commandLine = L"\"" + path + L"\" " + arguments;
    PROCESS_INFORMATION information{};
    if (!::CreateProcessW(path.c_str(), commandLine.data(), nullptr, nullptr, TRUE,
                          EXTENDED_STARTUPINFO_PRESENT | DETACHED_PROCESS, nullptr, nullptr,
                          &startup.StartupInfo, &information))
        FailLast("CreateProcessW");
    process.reset(information.hProcess);
    ::CloseHandle(information.hThread);
    id = information.dwProcessId;
    output = std::make_unique<OutputLines>(std::move(standardOutput.readEnd));
    errors = std::make_unique<OutputLines>(std::move(standardError.readEnd));
}

Program::~Program() {
    if (process && IsRunning())
        ::TerminateProcess(process.get(), 1);
}

bool Program::IsRunning() const {
    return !HasEnded(process.get());
}

DWORD Program::WaitForEnd(std::chrono::milliseconds time) {
    return WaitForProcess(process.get(), time, "the program does not end");
}

void Program::Terminate() {
    TerminateAndWait(process.get());
}

UniqueHandle OpenProcessById(DWORD id) {
    UniqueHandle process(::OpenProcess(
        SYNCHRONIZE | PROCESS_TERMINATE | PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id));
    if (!process)
        FailLast("OpenProcess");
    return process;
}

bool HasEnded(HANDLE process) {
    return ::WaitForSingleObject(process, 0) == WAIT_OBJECT_0;
}

DWORD WaitForProcess(HANDLE process, std::chrono::milliseconds time, const char* what) {
    if (::WaitForSingleObject(process, static_cast<DWORD>(time.count())) != WAIT_OBJECT_0)
        throw std::runtime_error(what);
    DWORD exitCode = 0;
    ::GetExitCodeProcess(process, &exitCode);
    return exitCode;
}

void TerminateAndWait(HANDLE process) {
    ::TerminateProcess(process, 1);
    WaitForProcess(process, kDeadline, "the terminated process does not end");
}

}  // namespace system_test
