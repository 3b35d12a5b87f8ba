#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>

// Inline, because a program that links the client library may use the same names itself.
inline namespace orvik_internal {

/// Closes what RegOpenKeyExW and RegCreateKeyExW return.
struct RegistryKeyCloser {
    using pointer = HKEY;
    void operator()(HKEY key) const noexcept { ::RegCloseKey(key); }
};
using UniqueRegistryKey = std::unique_ptr<std::remove_pointer_t<HKEY>, RegistryKeyCloser>;

}  // namespace orvik_internal
