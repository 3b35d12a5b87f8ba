// How a dump of the service records why its run ended.
#pragma once

#include <cstddef>

#include <windows.h>

// Inline, because a program that links the client library may use the same names itself.
inline namespace orvik_internal {

/// The exception that the service raises when a C++ exception has ended its run. It is also the
/// exit code of the process.
inline constexpr DWORD kRunEnded = 0xE04F5256;

/// The parameters of that exception: where the text of the C++ exception is (narrow, not
/// terminated), and its length in bytes. The text is on the stack of the thread that raises the
/// exception, because every kind of dump contains that stack.
enum RunEndedParameter : DWORD {
    kTextAddress,
    kTextLength,  // 0 if the exception was not derived from std::exception
    kRunEndedParameters,
};

/// Longest text that is recorded, in bytes. A longer one is cut off.
inline constexpr std::size_t kRunEndedTextLimit = 1024;

}  // namespace orvik_internal
