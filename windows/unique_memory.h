// Owners of memory blocks: the type names the function that frees the block.
#pragma once

#include <cstdlib>
#include <memory>

#include <windows.h>

// After <windows.h>, whose types it uses.
#include <combaseapi.h>

// Inline, because a program that links the client library may use the same names itself.
inline namespace orvik_internal {

/// Frees a block from malloc: the blocks that travel with an IoOperation.
struct MallocFreer {
    void operator()(void* block) const noexcept { std::free(block); }
};
using UniqueMalloc = std::unique_ptr<void, MallocFreer>;

/// Frees a block from LocalAlloc, or from a Windows function that documents LocalFree.
struct LocalFreer {
    void operator()(void* block) const noexcept { ::LocalFree(block); }
};

/// Frees a fixed (GMEM_FIXED) block from GlobalAlloc.
struct GlobalFreer {
    void operator()(void* block) const noexcept { ::GlobalFree(block); }
};

/// Frees a block from CoTaskMemAlloc, such as the path that SHGetKnownFolderPath returns (also
/// when that call has failed).
struct TaskMemoryFreer {
    void operator()(void* block) const noexcept { ::CoTaskMemFree(block); }
};

}  // namespace orvik_internal
