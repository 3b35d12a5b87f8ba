// The built OrvikService.exe, started in either run mode, and its output.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "program.h"
#include "protocol/message.h"
#include "support/deadline.h"
#include "windows/unique_handle.h"

namespace system_test {

/// Where the service runs.
enum class RunMode {
    kForeground,      // started with "--commandline", its output captured
    kServiceManager,  // under the service control manager, as the service OrvikService
};

/// The name of a run mode in the names of tests.
inline std::string NameOf(const testing::TestParamInfo<RunMode>& info) {
    return info.param == RunMode::kForeground ? "Foreground" : "ServiceManager";
}

/// The service linked with tests/unit/guarded_heap.cpp: it ends, with a line on standard error,
/// when it touches freed memory. Only GNU's linker builds it; ORVIK_GUARDED_SERVICE is defined
/// then.
inline std::wstring GuardedServicePath() {
    return TestFolder() + L"\\guarded_service.exe";
}

/// The service, running in one of its modes. There can be only one at a time.
///
/// All calls throw std::system_error or std::runtime_error when they fail. Use it from one thread,
/// except for Process(), Errors() and Output().
class RunningService {
public:
    /// Ends what an earlier test program may have left, starts the service and waits until it
    /// takes clients. Cameras that it is to find must be plugged before. `path` is that of the
    /// program that is the service, `arguments` are for it.
    explicit RunningService(RunMode mode = RunMode::kForeground,
                            std::wstring path = ProgramPath(L"OrvikService.exe"),
                            std::wstring arguments = {});

    /// Ends it, and removes it from the service control manager. The test fails if it has ended by
    /// itself before without a WaitForEnd().
    ~RunningService();

    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    /// Starts it (again) and waits until it takes clients.
    void Start();

    /// Stops it and waits until its process has ended. In the foreground nothing can stop it, so
    /// there its process is ended.
    void Stop();

    bool IsRunning() const;
    DWORD ProcessId() const;
    HANDLE Process() const;

    /// Waits until the process ends by itself; its exit code.
    DWORD WaitForEnd(std::chrono::milliseconds time = kDeadline);

    // In the foreground only.
    OutputLines& Output() { return program->Output(); }
    OutputLines& Errors() { return program->Errors(); }
    /// The lines on standard error: those so far, or all if the process has ended. Without the one
    /// that says that the desktop application can't be started: whether it may depends on who runs
    /// the tests.
    std::vector<std::string> ErrorLines();

    // Under the service control manager only.
    SERVICE_STATUS_PROCESS Status() const;
    /// ControlService: the error, ERROR_SUCCESS if there was none.
    DWORD Control(DWORD control);
    /// StartServiceW alone: neither waits nor looks. The error, ERROR_SUCCESS if there was none.
    DWORD StartAlone();
    /// After StartAlone(): waits for RUNNING and looks up the new process.
    void WaitUntilStarted();

private:
    void WaitForPipe(HANDLE process) const;

    RunMode runMode;
    std::wstring programPath;
    std::wstring programArguments;
    std::unique_ptr<Program> program;  // in the foreground
    UniqueHandle serviceProcess;       // under the service control manager
    bool endExpected = false;
};

/// Ends and removes an OrvikService that an earlier run of these tests has left, in either mode.
/// Throws std::runtime_error if there is one that is none of theirs.
void EndLeftovers();

}  // namespace system_test
