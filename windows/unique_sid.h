#pragma once

#include <memory>

#include <windows.h>

/// Frees what AllocateAndInitializeSid returns.
struct SidFreer {
    void operator()(void* sid) const noexcept { ::FreeSid(sid); }
};
using UniqueSid = std::unique_ptr<void, SidFreer>;
