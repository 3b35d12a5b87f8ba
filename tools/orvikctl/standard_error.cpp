#include "standard_error.h"

#include <cstddef>
#include <cstdio>

#include <windows.h>

bool StandardErrorIsTerminal() noexcept {
    DWORD mode = 0;
    return ::GetConsoleMode(::GetStdHandle(STD_ERROR_HANDLE), &mode) != FALSE;
}

void Say(const std::string& text) noexcept {
    if (!StandardErrorIsTerminal()) {
        std::fputs(text.c_str(), stderr);
        std::fflush(stderr);
        return;
    }
    const int length = static_cast<int>(text.size());
    const int size = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), size);
    DWORD written = 0;
    ::WriteConsoleW(::GetStdHandle(STD_ERROR_HANDLE), wide.data(), static_cast<DWORD>(wide.size()),
                    &written, nullptr);
}
