#include "running_service.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "installed_service.h"
#include "raw_client.h"

namespace system_test {

namespace {

[[noreturn]] void Fail(DWORD error, const std::string& what) {
    throw std::system_error(static_cast<int>(error), std::system_category(), what);
}

[[noreturn]] void FailLast(const std::string& what) {
    Fail(::GetLastError(), what);
}

std::wstring ServicePath() {
    return ProgramPath(L"OrvikService.exe");
}

/// Ends the process that serves the camera pipe, if there is one. The tests' own ends with them,
/// so this finds one only if the system has not got round to that yet.
void EndPipeServer() {
    if (!::WaitNamedPipeW(kCameraPipeName, 1) && ::GetLastError() == ERROR_FILE_NOT_FOUND)
        return;
    const UniqueHandle pipe = OwnFile(
        ::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
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

void EndLeftovers() {
    RemoveLeftService();
    EndPipeServer();
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
            ADD_FAILURE() << "the service has ended by itself:\n"
                          << (program ? Errors().Text() : std::string());
        if (runMode == RunMode::kServiceManager) {
            RemoveInstalledService();
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
    EXPECT_EQ(WaitForEnd(), 0u) << "the service has ended otherwise than by the stop";
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
    return WaitForProcess(Process(), time, "the service's process does not end");
}

std::vector<std::string> RunningService::ErrorLines() {
    std::vector<std::string> lines = IsRunning() ? Errors().Lines() : Errors().WaitForEnd();
    std::erase(lines, "Failed to get user token to launch application.");
    return lines;
}

SERVICE_STATUS_PROCESS RunningService::Status() const {
    return StatusOfInstalledService();
}

DWORD RunningService::Control(DWORD control) {
    return ControlInstalledService(control);
}

void RunningService::WaitForPipe(HANDLE process) const {
    const Deadline deadline;
    while (!::WaitNamedPipeW(kCameraPipeName, NMPWAIT_USE_DEFAULT_WAIT)) {
        // Nothing tells when a pipe is made, only that the process has ended before.
        if (::WaitForSingleObject(process, kMillisecondsBetweenLooks) == WAIT_OBJECT_0)
            throw std::runtime_error("the service has ended:\n" + program->Errors().Text());
        if (deadline.Over())
            throw std::runtime_error("the service opens no pipe:\n" + program->Errors().Text());
    }
}

}  // namespace system_test
