// Standard output is for data, standard error for messages. All texts are UTF-8; a console of any
// code page shows them correctly.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

/// Whether the stream is a console.
bool StandardOutputIsTerminal() noexcept;
bool StandardErrorIsTerminal() noexcept;

/// Writes a text to standard error, unchanged. A failure to do so is ignored.
void Say(const std::string& text) noexcept;

/// Writes an object to standard error in the form of PrintJson(). A failure to do so is ignored.
void SayJson(const nlohmann::ordered_json& object);

/// Write to standard output without buffering. All throw Failure if that fails, for example because
/// the reader of a pipe has closed it.
void Print(const std::string& text);
void PrintBytes(std::span<const std::byte> bytes);     // unchanged, in binary mode
void PrintJson(const nlohmann::ordered_json& object);  // one line, ASCII only
void PrintHexDump(std::span<const std::byte> bytes);

/// Lower case, two digits each.
std::string Hex(std::span<const std::byte> bytes);

/// The text with '?' for each control character: a text from a camera, a file name or an argument
/// must not control the terminal.
std::string Printable(std::string_view text);
