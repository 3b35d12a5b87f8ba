#pragma once

#include <windows.h>

namespace orvik {

// The module, a program or a DLL, that contains this library. Thread: any.

HINSTANCE ThisModule() noexcept;

/// Keeps the module loaded until that thread, which is running, has ended: what it runs is in the
/// module. If Windows lacks memory, the module stays loaded. Without effect in a program.
void KeepModuleLoadedDuring(DWORD threadId) noexcept;

}  // namespace orvik
