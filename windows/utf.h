// Conversions between UTF-16, which Windows takes, and UTF-8, which programs write.
#pragma once

#include <string>
#include <string_view>

#include <windows.h>

// Inline, because a program that links the client library may use the same names itself.
inline namespace orvik_internal {

// Header-only, because the client library and the service each link it into a library of their own.

/// `text` as UTF-8. Half of a surrogate pair without its other half becomes U+FFFD. `text` has at
/// most INT_MAX / 3 units. Throws std::bad_alloc. Thread: any.
inline std::string ToUtf8(std::wstring_view text) {
    const int length = static_cast<int>(text.size());
    const int size =
        ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(), size, nullptr, nullptr);
    return result;
}

/// `text`, which is UTF-8, as UTF-16. Bytes that are not UTF-8 become U+FFFD. `text` has at most
/// INT_MAX bytes. Throws std::bad_alloc. Thread: any.
inline std::wstring ToUtf16(std::string_view text) {
    const int length = static_cast<int>(text.size());
    const int size = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring result(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, result.data(), size);
    return result;
}

}  // namespace orvik_internal
