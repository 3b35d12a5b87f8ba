#pragma once

#include <cstdint>
#include <string>

#include "orvik/client.h"
#include "orvik/orvik.h"

namespace orvik::c_api {

// Status and the error of the calling thread. Thread: any.

/// The fixed number of a kind of failure.
orvik_status StatusOf(ErrorKind kind) noexcept;

/// Makes this the error of the calling thread. Returns `status`.
orvik_status Fail(orvik_status status, const char* text, std::uint32_t systemCode = 0) noexcept;
orvik_status Fail(const Error& error) noexcept;

/// Called by a handler of all exceptions: makes the current one the error of the calling thread.
orvik_status FailWithException() noexcept;

/// Every function of the interface that can fail is one call of this: `function` returns a status
/// or throws, and no exception leaves it.
template <typename Function>
orvik_status Call(Function function) noexcept {
    try {
        return function();
    } catch (...) {
        return FailWithException();
    }
}

/// Throws Error kBadArgument unless `valid`. The text is "{name} must not be NULL".
inline void RequirePointer(bool valid, const char* name) {
    if (!valid)
        throw Error(ErrorKind::kBadArgument, std::string(name) + " must not be NULL");
}

/// For the member `size` of a structure with `known` bytes in the first version.
inline void RequireSize(std::uint32_t size, std::size_t known, const char* name) {
    if (size < known)
        throw Error(ErrorKind::kBadArgument, std::string(name) + " must have at least " +
                                                 std::to_string(known) + " bytes; its size is " +
                                                 std::to_string(size));
}

/// The time-out of the C++ library.
inline std::chrono::milliseconds Timeout(std::uint32_t milliseconds) noexcept {
    return milliseconds == ORVIK_NO_TIMEOUT ? kNoTimeout : std::chrono::milliseconds(milliseconds);
}

}  // namespace orvik::c_api
