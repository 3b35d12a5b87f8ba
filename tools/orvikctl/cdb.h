#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

/// The command descriptor block that `words` spell: at most orvik::kCdbLimit bytes, which is what
/// the service passes on. It pads them with zeros, so zeros beyond them are left out. `commandLine`
/// has all arguments in order: the words must stand beside each other there, because options
/// between them are a sign that the first one is meant as the number of a camera. Throws
/// UsageError.
std::vector<std::byte> ParseCdb(const std::vector<std::string>& words,
                                const std::vector<std::string>& commandLine);
