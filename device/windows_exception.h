#pragma once

#include <stdexcept>

/// The error of a failed system call.
///
/// what() is the caller's text and two spaces (neither if there is no text), followed by
/// `GetLastError() = 0x<code in lower-case hexadecimal> (<the system's message, first line>)`.
/// The narrow text is in the process's ANSI code page, UTF-8 in this project's programs.
///
/// The code is whatever GetLastError() gives when the exception is made, so the throw stands
/// directly behind the call that failed, with nothing between them.
class WindowsException : public std::runtime_error {
public:
    /// Only the last-error part.
    WindowsException();

    /// `text` names the failed call; null is the same as no text.
    explicit WindowsException(const char* text);
};
