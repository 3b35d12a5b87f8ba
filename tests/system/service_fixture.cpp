#include "service_fixture.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <utility>

#include <wtsapi32.h>

#include "raw_client.h"

namespace system_test {

namespace {

/// What the tests call their service, so that they never touch one that is installed for use.
constexpr wchar_t kDisplayName[] = L"OrvikService (system tests)";

/// Where nothing can be waited for.
constexpr DWORD kMillisecondsBetweenLooks = 5;

struct ServiceHandleCloser {
    using pointer = SC_HANDLE;
    void operator()(SC_HANDLE handle) const noexcept { ::CloseServiceHandle(handle); }
};
using UniqueServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceHandleCloser>;

[[noreturn]] void Fail(DWORD error, const std::string& what) {
    throw std::system_error(static_cast<int>(error), std::system_category(), what);
}

[[noreturn]] void FailLast(const std::string& what) {
    Fail(::GetLastError(), what);
}

std::wstring ServicePath() {
    return ProgramPath(L"OrvikService.exe");
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
/// window has gone, and whoever makes the next one starts that process anew and hands it its
/// output: were that a program of the tests, its output would not end with it.
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

void WaitForProcess(HANDLE process, std::chrono::milliseconds time, const char* what) {
    if (::WaitForSingleObject(process, static_cast<DWORD>(time.count())) != WAIT_OBJECT_0)
        throw std::runtime_error(what);
}

void TerminateAndWait(HANDLE process) {
    ::TerminateProcess(process, 1);
    WaitForProcess(process, kDeadline, "the terminated process does not end");
}

UniqueServiceHandle OpenManager() {
    UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
        FailLast("OpenSCManagerW (are the tests run by an administrator?)");
    return manager;
}

/// Empty if there is no such service.
UniqueServiceHandle FindService(const UniqueServiceHandle& manager) {
    UniqueServiceHandle service(::OpenServiceW(manager.get(), kServiceName, SERVICE_ALL_ACCESS));
    if (!service && ::GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST)
        FailLast("OpenServiceW");
    return service;
}

UniqueServiceHandle OpenInstalledService() {
    UniqueServiceHandle service = FindService(OpenManager());
    if (!service)
        FailLast("OpenServiceW");
    return service;
}

SERVICE_STATUS_PROCESS StatusOf(const UniqueServiceHandle& service) {
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
        FailLast("QueryServiceStatusEx");
    return status;
}

/// Ends the service, with a stop control if it takes one, and removes it.
void RemoveService(UniqueServiceHandle service) {
    const DWORD processId = StatusOf(service).dwProcessId;
    if (processId != 0) {
        // Neither call has to succeed: the process may just have ended.
        const UniqueHandle process(
            ::OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, processId));
        SERVICE_STATUS status{};
        const bool stopping = ::ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
        constexpr DWORD kStopMilliseconds = 10'000;
        if (process &&
            (!stopping || ::WaitForSingleObject(process.get(), kStopMilliseconds) != WAIT_OBJECT_0))
            TerminateAndWait(process.get());
    }
    if (!::DeleteService(service.get()) && ::GetLastError() != ERROR_SERVICE_MARKED_FOR_DELETE)
        FailLast("DeleteService");
    service.reset();
    // It goes when the manager itself has let go of it, and nothing tells when.
    const UniqueServiceHandle manager = OpenManager();
    for (const Deadline deadline; FindService(manager); ::Sleep(kMillisecondsBetweenLooks)) {
        if (deadline.Over())
            throw std::runtime_error("the service that was removed does not go");
    }
}

void RemoveLeftService() {
    const UniqueServiceHandle manager = OpenManager();
    UniqueServiceHandle service = FindService(manager);
    if (!service)
        return;
    wchar_t name[256] = {};
    DWORD length = static_cast<DWORD>(std::size(name));
    if (!::GetServiceDisplayNameW(manager.get(), kServiceName, name, &length))
        FailLast("GetServiceDisplayNameW");
    if (std::wstring_view(name) != kDisplayName)
        throw std::runtime_error("a service OrvikService that is none of the tests is installed");
    RemoveService(std::move(service));
}

/// Ends the process that serves the camera pipe, if there is one. The tests' own ends with them,
/// so this finds one only if the system has not got round to that yet.
void EndPipeServer() {
    if (!::WaitNamedPipeW(kPipeName, 1) && ::GetLastError() == ERROR_FILE_NOT_FOUND)
        return;
    const UniqueHandle pipe =
        OwnFile(::CreateFileW(kPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    ULONG processId = 0;
    if (!pipe || !::GetNamedPipeServerProcessId(pipe.get(), &processId))
        FailLast("another process serves the camera pipe and cannot be found");
    const UniqueHandle process = OpenProcessById(processId);
    wchar_t path[1024] = {};
    DWORD length = static_cast<DWORD>(std::size(path));
    if (!::QueryFullProcessImageNameW(process.get(), 0, path, &length) ||
        ::CompareStringOrdinal(path, -1, ServicePath().c_str(), -1, TRUE) != CSTR_EQUAL)
        throw std::runtime_error("process " + std::to_string(processId) +
                                 ", which is none of the tests, serves the camera pipe");
    TerminateAndWait(process.get());
}

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

std::string Narrow(std::wstring_view text) {
    const int length = static_cast<int>(text.size());
    std::string narrow(text.size() * 3, '\0');
    narrow.resize(static_cast<std::size_t>(
        ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, narrow.data(),
                              static_cast<int>(narrow.size()), nullptr, nullptr)));
    return narrow;
}

bool MayStartApplication() {
    HANDLE token = nullptr;
    if (!::WTSQueryUserToken(::WTSGetActiveConsoleSessionId(), &token))
        return false;
    ::CloseHandle(token);
    return true;
}

void InstallService(const std::wstring& programPath, const std::wstring& arguments) {
    const std::wstring commandLine = L"\"" + programPath + L"\" " + arguments;
    const UniqueServiceHandle service(
        ::CreateServiceW(OpenManager().get(), kServiceName, kDisplayName, SERVICE_ALL_ACCESS,
                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                         commandLine.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    if (!service)
        FailLast("CreateServiceW");
}

DWORD StartInstalledService() {
    return ::StartServiceW(OpenInstalledService().get(), 0, nullptr) ? ERROR_SUCCESS
                                                                     : ::GetLastError();
}

void EndLeftovers() {
    RemoveLeftService();
    EndPipeServer();
}

DWORD Deadline::MillisecondsLeft() const {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    return static_cast<DWORD>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
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
    WaitForProcess(process.get(), time, "the program does not end");
    DWORD exitCode = 0;
    ::GetExitCodeProcess(process.get(), &exitCode);
    return exitCode;
}

void Program::Terminate() {
    TerminateAndWait(process.get());
}

struct StateNotification::Registration {
    UniqueServiceHandle service = OpenInstalledService();
    SERVICE_NOTIFYW record{};  // the system's, until the handle is closed or it has called back
    bool notified = false;
};

StateNotification::StateNotification(DWORD notifyMask)
    : registration(std::make_unique<Registration>()) {
    SERVICE_NOTIFYW& record = registration->record;
    record.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
    record.pfnNotifyCallback = [](void* parameter) {
        const auto* const called = static_cast<const SERVICE_NOTIFYW*>(parameter);
        static_cast<Registration*>(called->pContext)->notified = true;
    };
    record.pContext = registration.get();
    const DWORD error =
        ::NotifyServiceStatusChangeW(registration->service.get(), notifyMask, &record);
    if (error != ERROR_SUCCESS)
        Fail(error, "NotifyServiceStatusChangeW");
}

StateNotification::~StateNotification() {
    registration->service.reset();
    if (!registration->notified)
        ::SleepEx(0, TRUE);  // takes a call that was queued meanwhile
}

SERVICE_STATUS_PROCESS StateNotification::Wait() {
    const Deadline deadline;
    while (!registration->notified) {  // it is an asynchronous procedure call of this thread
        if (deadline.Over())
            throw std::runtime_error("the service does not reach the state");
        ::SleepEx(deadline.MillisecondsLeft(), TRUE);
    }
    return registration->record.ServiceStatus;
}

RunningService::RunningService(RunMode mode, std::wstring path, std::wstring arguments)
    : runMode(mode),
      programPath(std::move(path)),
      programArguments(std::move(arguments)) {
    EndLeftovers();
    if (runMode == RunMode::kServiceManager)
        InstallService(programPath, programArguments);
    Start();
}

RunningService::~RunningService() {
    try {
        if (!endExpected && !IsRunning())
            ADD_FAILURE() << "the service has ended by itself";
        if (runMode == RunMode::kServiceManager) {
            RemoveService(OpenInstalledService());
            if (!endExpected) {
                EXPECT_EQ(WaitForEnd(), 0u) << "the service has ended otherwise than by the stop";
            }
        }
    } catch (const std::exception& exception) {
        ADD_FAILURE() << "removing the service: " << exception.what();
    }
    program.reset();
    CloseAbandonedConnections();
}

void RunningService::Start() {
    if (runMode == RunMode::kForeground) {
        endExpected = false;
        program = std::make_unique<Program>(programPath, L"--commandline " + programArguments);
        WaitForPipe(program->Process());
        return;
    }
    if (const DWORD error = StartAlone(); error != ERROR_SUCCESS)
        Fail(error, "StartServiceW");
    WaitUntilStarted();
}

DWORD RunningService::StartAlone() {
    return StartInstalledService();
}

void RunningService::WaitUntilStarted() {
    const SERVICE_STATUS_PROCESS status =
        StateNotification(SERVICE_NOTIFY_RUNNING | SERVICE_NOTIFY_STOPPED).Wait();
    if (status.dwCurrentState != SERVICE_RUNNING)
        throw std::runtime_error("the service does not start, its state is " +
                                 std::to_string(status.dwCurrentState));
    serviceProcess = OpenProcessById(status.dwProcessId);
    endExpected = false;
}

void RunningService::Stop() {
    if (runMode == RunMode::kForeground) {
        endExpected = true;
        program->Terminate();
        return;
    }
    if (const DWORD error = Control(SERVICE_CONTROL_STOP); error != ERROR_SUCCESS)
        Fail(error, "ControlService");
    StateNotification(SERVICE_NOTIFY_STOPPED).Wait();
    WaitForEnd();
}

HANDLE RunningService::Process() const {
    return runMode == RunMode::kForeground ? program->Process() : serviceProcess.get();
}

DWORD RunningService::ProcessId() const {
    return ::GetProcessId(Process());
}

bool RunningService::IsRunning() const {
    return !HasEnded(Process());
}

DWORD RunningService::WaitForEnd(std::chrono::milliseconds time) {
    endExpected = true;
    WaitForProcess(Process(), time, "the service's process does not end");
    DWORD exitCode = 0;
    ::GetExitCodeProcess(Process(), &exitCode);
    return exitCode;
}

std::vector<std::string> RunningService::ErrorLines() {
    std::vector<std::string> lines = IsRunning() ? Errors().Lines() : Errors().WaitForEnd();
    std::erase(lines, "Failed to get user token to launch application.");
    return lines;
}

SERVICE_STATUS_PROCESS RunningService::Status() const {
    return StatusOf(OpenInstalledService());
}

DWORD RunningService::Control(DWORD control) {
    SERVICE_STATUS status{};
    return ::ControlService(OpenInstalledService().get(), control, &status) ? ERROR_SUCCESS
                                                                            : ::GetLastError();
}

void RunningService::WaitForPipe(HANDLE process) const {
    const Deadline deadline;
    while (!::WaitNamedPipeW(kPipeName, NMPWAIT_USE_DEFAULT_WAIT)) {
        // Nothing tells when a pipe is made, only that the process has ended before.
        if (::WaitForSingleObject(process, kMillisecondsBetweenLooks) == WAIT_OBJECT_0)
            throw std::runtime_error("the service has ended:\n" + program->Errors().Text());
        if (deadline.Over())
            throw std::runtime_error("the service opens no pipe:\n" + program->Errors().Text());
    }
}

}  // namespace system_test
