// Starting and stopping the built OrvikService.exe for the system tests, in either run mode, and
// reading what it prints. On Windows the tests need administrator rights: they make a service.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/unique_handle.h"
#include "virtual_camera.h"

namespace system_test {

/// How long anything may take that does happen when all is well: waits end with the event.
inline constexpr std::chrono::seconds kDeadline{30};

inline constexpr wchar_t kServiceName[] = L"OrvikService";
inline constexpr wchar_t kPipeName[] = LR"(\\.\pipe\orvikcamera)";

/// The folder of the running test program, without a backslash at the end.
std::wstring TestFolder();

/// A shipped program: the build puts those into the folder bin beside that of the tests.
std::wstring ProgramPath(const wchar_t* fileName);

/// What is left of a time-out that began at construction.
class Deadline {
public:
    explicit Deadline(std::chrono::milliseconds time = kDeadline)
        : end(std::chrono::steady_clock::now() + time) {}
    DWORD MillisecondsLeft() const;
    bool Over() const { return MillisecondsLeft() == 0; }

private:
    std::chrono::steady_clock::time_point end;
};

/// UTF-8.
std::string Narrow(std::wstring_view text);

/// The lines that a process writes to one of its standard streams. A thread of its own takes them
/// as they come. All calls may be made from any thread; those that wait throw std::runtime_error,
/// with everything seen so far, when the deadline passes or the stream ends first.
class OutputLines {
public:
    explicit OutputLines(UniqueHandle readEnd);

    /// Waits for the end of the stream: the process must have ended or be about to.
    ~OutputLines();

    OutputLines(const OutputLines&) = delete;
    OutputLines& operator=(const OutputLines&) = delete;

    /// Waits until `count` lines begin with `start`, and returns those that do.
    std::vector<std::string> WaitFor(std::string_view start, std::size_t count = 1);

    /// Waits until the process has closed the stream, and returns all lines.
    std::vector<std::string> WaitForEnd();

    /// The lines so far, also as a text for a failure message.
    std::vector<std::string> Lines() const;
    std::string Text() const;

private:
    void Run();
    std::vector<std::string> Starting(std::string_view start) const;  // the lock is held
    std::string Joined() const;                                       // the lock is held

    UniqueHandle readEnd;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> lines;  // whole ones, without their ends
    bool ended = false;
    std::thread reader;
};

/// One process of a program, with its output captured. Does not outlive this object, or the test
/// program if that crashes.
class Program {
public:
    /// Starts `path` with `arguments` (as on a command line; may be empty).
    /// Throws std::system_error.
    Program(const std::wstring& path, const std::wstring& arguments);

    /// Ends the process if it still runs.
    ~Program();

    DWORD Id() const noexcept { return id; }
    HANDLE Process() const noexcept { return process.get(); }
    bool IsRunning() const;

    /// Waits for the process to end by itself; its exit code. Throws std::runtime_error.
    DWORD WaitForEnd(std::chrono::milliseconds time = kDeadline);

    /// Ends the process at once, and waits until it is gone.
    void Terminate();

    OutputLines& Output() noexcept { return *output; }
    OutputLines& Errors() noexcept { return *errors; }

private:
    UniqueHandle process;
    DWORD id = 0;
    std::unique_ptr<OutputLines> output;
    std::unique_ptr<OutputLines> errors;
};

/// Where the service runs.
enum class RunMode {
    kForeground,      // started with "--commandline", its output captured
    kServiceManager,  // under the service control manager, as the service OrvikService
};

/// The name of a run mode in the names of tests.
inline std::string NameOf(const testing::TestParamInfo<RunMode>& info) {
    return info.param == RunMode::kForeground ? "Foreground" : "ServiceManager";
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
    /// itself before, and nobody has waited for that.
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

/// Waits for the service to report one of some states, given as a mask of SERVICE_NOTIFY_...; one
/// that it is in at construction counts. Throws std::system_error and std::runtime_error.
/// Thread: the one that made it.
class StateNotification {
public:
    explicit StateNotification(DWORD notifyMask);
    ~StateNotification();

    StateNotification(const StateNotification&) = delete;
    StateNotification& operator=(const StateNotification&) = delete;

    /// The status with that state.
    SERVICE_STATUS_PROCESS Wait();

private:
    struct Registration;
    std::unique_ptr<Registration> registration;
};

/// True where the service in the foreground, which runs as whoever runs the tests, may start
/// programs for the user at the console. Windows lets only LocalSystem do that.
bool MayStartApplication();

/// Installs a program as the service OrvikService, and starts nothing. EndLeftovers() removes it.
/// Throws std::system_error.
void InstallService(const std::wstring& programPath, const std::wstring& arguments = {});

/// StartServiceW alone: neither waits nor looks. The error, ERROR_SUCCESS if there was none.
DWORD StartInstalledService();

/// Ends and removes an OrvikService that an earlier run of these tests has left, in either mode.
/// Throws std::runtime_error if there is one that is none of theirs.
void EndLeftovers();

/// The fixture of all system tests: begins with no service, and no camera plugged.
class SystemTest : public testing::Test {
protected:
    SystemTest() {
        EndLeftovers();
        bus.UnplugAll();
    }

    vcam::Bus bus;
};

}  // namespace system_test
