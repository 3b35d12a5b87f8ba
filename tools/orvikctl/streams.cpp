#include "streams.h"

#include <algorithm>

#include <windows.h>

#include <nlohmann/json.hpp>

#include "console_output.h"
#include "exit_code.h"

namespace {

void CheckWritten(DWORD code) {
    if (code != ERROR_SUCCESS)
        throw SystemFailure("cannot write to standard output", code);
}

/// One line, ASCII only, which escapes all control characters.
std::string LineOf(const nlohmann::ordered_json& object) {
    constexpr bool kAsciiOnly = true;
    return object.dump(-1, ' ', kAsciiOnly, nlohmann::ordered_json::error_handler_t::replace) +
           "\n";
}

bool IsControl(std::byte byte) noexcept {
    return byte < std::byte{0x20} || byte == std::byte{0x7F};
}

}  // namespace

bool StandardOutputIsTerminal() noexcept {
    return IsConsole(STD_OUTPUT_HANDLE);
}

bool StandardErrorIsTerminal() noexcept {
    return IsConsole(STD_ERROR_HANDLE);
}

void Say(const std::string& text) noexcept {
    WriteText(STD_ERROR_HANDLE, text);
}

void SayJson(const nlohmann::ordered_json& object) {
    Say(LineOf(object));
}

void Print(const std::string& text) {
    CheckWritten(WriteText(STD_OUTPUT_HANDLE, text));
}

void PrintBytes(std::span<const std::byte> bytes) {
    CheckWritten(WriteBytes(bytes));
}

void PrintJson(const nlohmann::ordered_json& object) {
    Print(LineOf(object));
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
