#pragma once

#include <memory>

#include <windows.h>

// Inline, because a program that links the client library may use the same names itself.
inline namespace orvik_internal {

/// Frees what AllocateAndInitializeSid returns.
struct SidFreer {
    void operator()(void* sid) const noexcept { ::FreeSid(sid); }
};
using UniqueSid = std::unique_ptr<void, SidFreer>;

}  // namespace orvik_internal
