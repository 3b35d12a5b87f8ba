// A console without a window, for this process and the programs that it starts.
#pragma once

#include <memory>
#include <string>

#include <windows.h>

#include "system_test.h"

namespace system_test {

/// This process is on it while it lives, so there can be one at a time. All throw std::system_error
/// or std::runtime_error.
class TestConsole {
public:
    TestConsole();
    ~TestConsole();

    TestConsole(const TestConsole&) = delete;
    TestConsole& operator=(const TestConsole&) = delete;

    /// Starts a program whose standard output and standard error are this console.
    void Start(const std::wstring& path, const std::wstring& arguments);

    /// Waits for its end; its exit code.
    DWORD WaitForEnd();

    /// As if the user pressed Ctrl-C. This process ignores it.
    void PressCtrlC();

    /// As if the user closed the window, for the program. The console itself stays.
    void CloseWindow();

    /// What the screen shows, line by line, without trailing blanks and empty lines at the end.
    std::vector<std::string> Screen() const;

private:
    struct PseudoConsole;
    std::unique_ptr<PseudoConsole> console;
    UniqueHandle screen;
    UniqueHandle process;
};

}  // namespace system_test
