// Owners of what Windows hands out: the type names the function that gives it back.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>

#include <windows.h>

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

/// The half of a handle's value that Windows uses, also the key of its packets.
inline std::uint32_t LowHalf(HANDLE handle) noexcept {
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(handle));
}

/// Frees a block from malloc: the blocks that travel with an IoOperation.
struct MallocFreer {
    void operator()(void* block) const noexcept { std::free(block); }
};
using UniqueMalloc = std::unique_ptr<void, MallocFreer>;

/// Frees a block from LocalAlloc or from a Windows function that says LocalFree.
struct LocalFreer {
    void operator()(void* block) const noexcept { ::LocalFree(block); }
};

/// Frees a fixed (GMEM_FIXED) block from GlobalAlloc.
struct GlobalFreer {
    void operator()(void* block) const noexcept { ::GlobalFree(block); }
};
