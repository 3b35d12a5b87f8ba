// Programs that the tests start, and their output.
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

#include <windows.h>

#include "support/deadline.h"
#include "windows/unique_handle.h"
#include "windows/utf.h"

namespace system_test {

/// Where nothing can be waited for.
inline constexpr DWORD kMillisecondsBetweenLooks = 5;

/// The folder of the running test program, without a backslash at the end.
std::wstring TestFolder();

/// A shipped program: the build puts those into the folder bin beside that of the tests.
std::wstring ProgramPath(const wchar_t* fileName);

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

/// A process that runs already. Throws std::system_error.
UniqueHandle OpenProcessById(DWORD id);

bool HasEnded(HANDLE process);

/// Waits for a process to end by itself; its exit code. Throws std::runtime_error with the text
/// `what` after the deadline.
DWORD WaitForProcess(HANDLE process, std::chrono::milliseconds time, const char* what);

/// Ends a process at once, and waits until it is gone. Throws std::runtime_error.
void TerminateAndWait(HANDLE process);

}  // namespace system_test
