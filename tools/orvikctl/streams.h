// Standard output is for data, standard error for talk. All texts are UTF-8, and readable on a
// console of any code page.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

/// True if someone may be looking: the stream is a console.
bool StandardOutputIsTerminal() noexcept;
bool StandardErrorIsTerminal() noexcept;

/// Writes a text to standard error, as it is.
void Say(const std::string& text) noexcept;

/// Writes to standard output, at once. All throw Failure if that cannot be done: who reads it may
/// have gone.
void Print(const std::string& text);
void PrintBytes(std::span<const std::byte> bytes);     // as they are
void PrintJson(const nlohmann::ordered_json& object);  // one line, ASCII alone
void PrintHexDump(std::span<const std::byte> bytes);

/// Lower case, two digits each.
std::string Hex(std::span<const std::byte> bytes);

/// The text with '?' for each control character: what a camera, a file's name or an argument says
/// must not steer the terminal.
std::string Printable(std::string_view text);

/// From UTF-16.
std::string Utf8(std::wstring_view text);
