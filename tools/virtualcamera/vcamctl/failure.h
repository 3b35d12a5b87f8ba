#pragma once

#include <string>
#include <system_error>

#include <windows.h>

/// Throws std::system_error. `code` is that of the system call that failed.
[[noreturn]] inline void FailLast(const std::string& what, DWORD code = ::GetLastError()) {
    throw std::system_error(static_cast<int>(code), std::system_category(), what);
}
