// Owners of kernel handles.
#pragma once

#include <cstdint>
#include <memory>

#include <windows.h>

// Inline, because a program that links the client library may use the same names itself.
inline namespace orvik_internal {

/// Closes what CreateFileW, CreateNamedPipeW, CreateEventW, OpenProcessToken and their like return.
struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const noexcept { ::CloseHandle(handle); }
};
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

/// Owns a new file or pipe handle; empty if the call failed. CreateFileW and CreateNamedPipeW fail
/// with INVALID_HANDLE_VALUE, most others with null: check each one.
inline UniqueHandle OwnFile(HANDLE handle) noexcept {
    return UniqueHandle(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

/// The half of a handle's value that Windows uses, also the completion key of its packets.
inline std::uint32_t LowHalf(HANDLE handle) noexcept {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(handle));
}

/// Closes what FindFirstFileW returns unless it is INVALID_HANDLE_VALUE (see OwnSearch()).
struct SearchCloser {
    using pointer = HANDLE;
    void operator()(HANDLE search) const noexcept { ::FindClose(search); }
};
using UniqueSearch = std::unique_ptr<void, SearchCloser>;

/// Owns the result of FindFirstFileW; empty if the call failed.
inline UniqueSearch OwnSearch(HANDLE search) noexcept {
    return UniqueSearch(search == INVALID_HANDLE_VALUE ? nullptr : search);
}

}  // namespace orvik_internal
