#include "streams.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <nlohmann/json.hpp>

#include "exit_code.h"

namespace {

bool IsTerminal(DWORD stream) noexcept {
    DWORD mode = 0;
    return ::GetConsoleMode(::GetStdHandle(stream), &mode) != FALSE;
}

bool WriteToConsole(DWORD stream, std::string_view text) {
    const int length = static_cast<int>(text.size());
    const int size = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), length, wide.data(), size);
    DWORD written = 0;
    return ::WriteConsoleW(::GetStdHandle(stream), wide.data(), static_cast<DWORD>(wide.size()),
                           &written, nullptr) != FALSE;
}

bool WriteToFile(std::FILE* file, std::span<const std::byte> bytes) noexcept {
    return std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() &&
           std::fflush(file) == 0;
}

std::span<const std::byte> BytesOf(std::string_view text) noexcept {
    return std::as_bytes(std::span(text.data(), text.size()));
}

constexpr char kNotWritten[] = "the output could not be written";

void WriteToOutput(std::span<const std::byte> bytes) {
    if (WriteToFile(stdout, bytes))
        return;
    // Not every run-time library keeps the code.
    const DWORD last = ::GetLastError();
    const DWORD kept = _doserrno;
    throw SystemFailure(kNotWritten, kept != 0 ? kept : last);
}

bool IsControl(std::byte byte) noexcept {
    return byte < std::byte{0x20} || byte == std::byte{0x7F};
}

}  // namespace

bool StandardOutputIsTerminal() noexcept {
    return IsTerminal(STD_OUTPUT_HANDLE);
}

bool StandardErrorIsTerminal() noexcept {
    return IsTerminal(STD_ERROR_HANDLE);
}

void Say(const std::string& text) noexcept {
    if (StandardErrorIsTerminal())
        WriteToConsole(STD_ERROR_HANDLE, text);
    else
        WriteToFile(stderr, BytesOf(text));
}

void Print(const std::string& text) {
    if (!StandardOutputIsTerminal())
        WriteToOutput(BytesOf(text));
    else if (!WriteToConsole(STD_OUTPUT_HANDLE, text))
        throw SystemFailure(kNotWritten);
}

void PrintBytes(std::span<const std::byte> bytes) {
    ::_setmode(::_fileno(stdout), _O_BINARY);
    WriteToOutput(bytes);
}

void PrintJson(const nlohmann::ordered_json& object) {
    constexpr bool kAsciiAlone = true;  // which escapes all control characters
    Print(object.dump(-1, ' ', kAsciiAlone, nlohmann::ordered_json::error_handler_t::replace) +
          "\n");
}

void PrintHexDump(std::span<const std::byte> bytes) {
    constexpr std::size_t kBytesPerLine = 16;
    std::string text;
    for (std::size_t offset = 0; offset < bytes.size(); offset += kBytesPerLine) {
        const auto line = bytes.subspan(offset, std::min(kBytesPerLine, bytes.size() - offset));
        std::string columns;
        std::string characters;
        for (const std::byte byte : line) {
            columns += ' ' + Hex({&byte, 1});
            characters += IsControl(byte) || byte > std::byte{0x7F} ? '.' : static_cast<char>(byte);
        }
        columns.resize(3 * kBytesPerLine, ' ');
        const std::byte address[] = {static_cast<std::byte>(offset >> 8),
                                     static_cast<std::byte>(offset)};
        text.append(Hex(address)).append(" ").append(columns).append("  ").append(characters);
        text += '\n';
    }
    Print(text);
}

std::string Hex(std::span<const std::byte> bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::byte byte : bytes) {
        text += kDigits[std::to_integer<unsigned>(byte >> 4)];
        text += kDigits[std::to_integer<unsigned>(byte & std::byte{15})];
    }
    return text;
}

std::string Printable(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<std::byte>(text[i]);
        const auto next = i + 1 < text.size() ? static_cast<std::byte>(text[i + 1]) : std::byte{};
        // U+0080 to U+009F in UTF-8: some terminals obey those too.
        const bool twoBytes =
            byte == std::byte{0xC2} && next >= std::byte{0x80} && next < std::byte{0xA0};
        result += IsControl(byte) || twoBytes ? '?' : text[i];
        i += twoBytes ? 1 : 0;
    }
    return result;
}

std::string Utf8(std::wstring_view text) {
    const int length = static_cast<int>(text.size());
    const int size =
        ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, result.data(), size, nullptr, nullptr);
    return result;
}
