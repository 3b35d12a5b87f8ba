// What a process holds, to see that nothing is left behind.
#pragma once

#include <cstddef>

#include <windows.h>

namespace system_test {

/// How many handles a process has open. Throws std::runtime_error.
std::size_t HandleCount(DWORD processId);

/// Bytes. Throws std::system_error.
std::size_t WorkingSet(HANDLE process);

}  // namespace system_test
