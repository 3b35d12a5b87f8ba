#include "orvik/client.h"

#include <iterator>

#include <windows.h>

#include "windows/utf.h"

namespace orvik {

namespace {

/// "text: what the code means (error 5)"
std::string WithSystemText(std::string text, DWORD code) {
    if (code == 0)
        return text;
    wchar_t words[512];
    DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
        nullptr, code, 0, words, static_cast<DWORD>(std::size(words)), nullptr);
    while (length != 0 && (words[length - 1] == L' ' || words[length - 1] == L'.'))
        --length;
    if (length != 0)
        text += ": " + ToUtf8({words, length});
    return text + " (error " + std::to_string(code) + ")";
}

}  // namespace

Error::Error(ErrorKind errorKind, const std::string& text, std::uint32_t systemCode)
    : std::runtime_error(WithSystemText(text, systemCode)),
      kind(errorKind),
      code(systemCode) {}

}  // namespace orvik
