#include "console_output.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fcntl.h>
#include <io.h>

#include "windows/utf.h"

namespace {

/// WriteConsoleW fails for texts beyond an undocumented length: 64 KiB in older consoles.
constexpr std::size_t kPiece = 8'192;

bool IsHighSurrogate(wchar_t unit) noexcept {
    return unit >= 0xD800 && unit < 0xDC00;
}

/// The length of the next piece. Does not separate a surrogate pair, because a console shows each
/// half of a separated pair as an unknown character.
std::size_t NextPiece(std::wstring_view text) noexcept {
    const std::size_t length = std::min(kPiece, text.size());
    return length < text.size() && IsHighSurrogate(text[length - 1]) ? length - 1 : length;
}

DWORD WriteToConsole(HANDLE console, std::wstring_view text) noexcept {
    while (!text.empty()) {
        DWORD written = 0;
        if (!::WriteConsoleW(console, text.data(), static_cast<DWORD>(NextPiece(text)), &written,
                             nullptr))
            return ::GetLastError();
        if (written == 0)
            return ERROR_WRITE_FAULT;
        text.remove_prefix(written);
    }
    return ERROR_SUCCESS;
}

DWORD WriteToFile(std::FILE* file, const void* bytes, std::size_t length) noexcept {
    if (std::fwrite(bytes, 1, length, file) == length && std::fflush(file) == 0)
        return ERROR_SUCCESS;
    // Not every run-time library keeps the code in _doserrno.
    const DWORD last = ::GetLastError();
    const DWORD kept = _doserrno;
    return kept != 0 ? kept : last;
}

}  // namespace

bool IsConsole(DWORD stream) noexcept {
    DWORD mode = 0;
    return ::GetConsoleMode(::GetStdHandle(stream), &mode) != FALSE;
}

DWORD WriteText(DWORD stream, std::string_view text) {
    if (IsConsole(stream))
        return WriteToConsole(::GetStdHandle(stream), ToUtf16(text));
    return WriteToFile(stream == STD_OUTPUT_HANDLE ? stdout : stderr, text.data(), text.size());
}

DWORD WriteBytes(std::span<const std::byte> bytes) noexcept {
    ::_setmode(::_fileno(stdout), _O_BINARY);
    return WriteToFile(stdout, bytes.data(), bytes.size());
}
