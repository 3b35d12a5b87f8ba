#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>

/// Closes what RegOpenKeyExW and RegCreateKeyExW return.
struct RegistryKeyCloser {
    using pointer = HKEY;
    void operator()(HKEY key) const noexcept { ::RegCloseKey(key); }
};
using UniqueRegistryKey = std::unique_ptr<std::remove_pointer_t<HKEY>, RegistryKeyCloser>;
