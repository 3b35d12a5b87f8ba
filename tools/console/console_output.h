// Text output of command line tools on consoles, files and pipes. Texts are UTF-8. The functions
// that write don't buffer, and return the error code of the system, ERROR_SUCCESS if all is
// written.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

#include <windows.h>

/// Whether `stream`, STD_OUTPUT_HANDLE or STD_ERROR_HANDLE, is a console.
bool IsConsole(DWORD stream) noexcept;

/// Writes to STD_OUTPUT_HANDLE or STD_ERROR_HANDLE. A console shows the characters correctly with
/// any code page; a file or pipe gets the bytes with the line ends of a text file.
/// Throws std::bad_alloc.
DWORD WriteText(DWORD stream, std::string_view text);

/// Writes bytes unchanged to standard output.
DWORD WriteBytes(std::span<const std::byte> bytes) noexcept;
