#include "service/wide_output.h"

#include <iostream>
#include <string>
#include <string_view>
#include <utility>

#include <windows.h>

#include "windows/utf.h"

namespace {

/// A lone half of a surrogate pair becomes U+FFFD.
bool WriteUtf8(std::wstring_view text) {
    const std::string bytes = ToUtf8(text);  // too short to be allocated
    const auto size = static_cast<std::streamsize>(bytes.size());
    return std::cout.rdbuf()->sputn(bytes.data(), size) == size;
}

}  // namespace

WideOutput::WideOutput() : previous(std::wcout.rdbuf(this)) {}

WideOutput::~WideOutput() {
    std::wcout.rdbuf(previous);
}

WideOutput::int_type WideOutput::overflow(int_type character) {
    if (traits_type::eq_int_type(character, traits_type::eof()))
        return traits_type::not_eof(character);
    const wchar_t unit = traits_type::to_char_type(character);
    bool written = true;
    if (highSurrogate != 0) {
        // Only with its second half is it a character; what else follows stands for itself.
        const wchar_t text[] = {std::exchange(highSurrogate, wchar_t{0}), unit};
        const bool isPair = IS_LOW_SURROGATE(unit);
        written = WriteUtf8({text, isPair ? 2U : 1U});
        if (isPair)
            return written ? character : traits_type::eof();
    }
    if (IS_HIGH_SURROGATE(unit))
        highSurrogate = unit;
    else
        written = WriteUtf8({&unit, 1}) && written;
    return written ? character : traits_type::eof();
}

int WideOutput::sync() {
    return std::cout.rdbuf()->pubsync();
}
