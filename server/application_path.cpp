#include "server/application_path.h"

#include <algorithm>

#include <windows.h>

#include "windows/unique_registry_key.h"

namespace {

constexpr wchar_t kAppPathKey[] =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\App Paths\Orvik.exe)";
constexpr wchar_t kFallbackPath[] = LR"(c:\Program Files (x86)\Orvik\Orvik.exe)";

/// Reads a string value below HKEY_LOCAL_MACHINE into `path`, which must be all zeros. False on any
/// failure, for an empty value and for one of more than 1024 bytes.
bool ReadAppPath(const wchar_t* keyPath, const wchar_t* valueName, ApplicationPath& path) noexcept {
    constexpr DWORD kLargestValue = 1024;  // bytes
    HKEY opened = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath, 0, KEY_QUERY_VALUE, &opened) != ERROR_SUCCESS)
        return false;
    const UniqueRegistryKey key(opened);
    DWORD size = sizeof(path);
    const LSTATUS result = ::RegQueryValueExW(key.get(), valueName, nullptr, nullptr,
                                              reinterpret_cast<BYTE*>(path.data()), &size);
    if (result != ERROR_SUCCESS || size > kLargestValue || size == 0)
        return false;
    // Kept on purpose: bytes minus one taken as characters. They run past the value's end into the
    // buffer's zeros. A value is empty if there is nothing but zeros; Windows reads up to the
    // first.
    return std::any_of(path.begin(), path.begin() + (size - 1),
                       [](wchar_t character) { return character != L'\0'; });
}

}  // namespace

const wchar_t* FindApplicationPath(ApplicationPath& registered) noexcept {
    return ReadAppPath(kAppPathKey, L"", registered) ? registered.data() : kFallbackPath;
}
