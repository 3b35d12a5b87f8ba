#include "cdb.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <iterator>

#include "exit_code.h"
#include "orvik/client.h"
#include "streams.h"

namespace {

/// The longest command of SCSI with a fixed length.
constexpr std::size_t kLongest = 16;

/// Fewer than 6 bytes are padded with zeros. 8 bytes are all that the service passes on.
constexpr bool IsLengthOfCommand(std::size_t length) noexcept {
    return length <= 6 || length == 8 || length == 10 || length == 12 || length == kLongest;
}

bool HasTwoHexDigits(const std::string& word) {
    return word.size() == 2 &&
           std::all_of(word.begin(), word.end(), [](unsigned char c) { return std::isxdigit(c); });
}

/// What to write if a word is meant as the number of a camera. Empty if it is no such number.
std::string CameraHint(const std::string& word) {
    const bool number = !word.empty() && std::all_of(word.begin(), word.end(), [](unsigned char c) {
        return std::isdigit(c);
    });
    return number ? ". If " + word + " is the number of a camera, write --camera " + word : "";
}

std::byte ByteOf(const std::string& word) {
    if (!HasTwoHexDigits(word))
        throw UsageError("CDB must consist of bytes of two hexadecimal digits each, not \"" + word +
                         "\"" + CameraHint(word));
    unsigned value = 0;
    std::from_chars(word.data(), word.data() + word.size(), value, 16);
    return static_cast<std::byte>(value);
}

/// A command that does the same in 6 bytes.
struct ShortForm {
    std::byte operation;
    const char* instead;
};

constexpr ShortForm kShortForms[] = {
    {std::byte{0x28}, "READ(6), 08"},        {std::byte{0xA8}, "READ(6), 08"},
    {std::byte{0x88}, "READ(6), 08"},        {std::byte{0x2A}, "WRITE(6), 0a"},
    {std::byte{0xAA}, "WRITE(6), 0a"},       {std::byte{0x8A}, "WRITE(6), 0a"},
    {std::byte{0x55}, "MODE SELECT(6), 15"}, {std::byte{0x5A}, "MODE SENSE(6), 1a"},
};

std::string WhatWorks(std::byte operation) {
    const auto* const form =
        std::find_if(std::begin(kShortForms), std::end(kShortForms),
                     [operation](const ShortForm& known) { return known.operation == operation; });
    return form == std::end(kShortForms) ? "use a command of at most 8 bytes"
                                         : std::string("use ") + form->instead;
}

}  // namespace

std::vector<std::byte> ParseCdb(const std::vector<std::string>& words,
                                const std::vector<std::string>& commandLine) {
    std::vector<std::byte> cdb;
    std::transform(words.begin(), words.end(), std::back_inserter(cdb), ByteOf);
    if (std::search(commandLine.begin(), commandLine.end(), words.begin(), words.end()) ==
        commandLine.end())
        throw UsageError("the bytes of CDB must follow one another, without options between them" +
                         CameraHint(words.front()));
    if (cdb.size() > kLongest)
        throw UsageError("CDB must have 1 to " + std::to_string(kLongest) + " bytes, not " +
                         std::to_string(cdb.size()) + CameraHint(words.front()));
    // A user can still send such a command, with zeros at its end.
    if (!IsLengthOfCommand(cdb.size()))
        throw UsageError("CDB has " + std::to_string(cdb.size()) +
                         " bytes, but no SCSI command has" + CameraHint(words.front()));
    if (cdb.size() <= orvik::kCdbLimit)
        return cdb;
    const auto rest = cdb.begin() + orvik::kCdbLimit;
    const auto lost = std::find_if(rest, cdb.end(), [](std::byte b) { return b != std::byte{}; });
    if (lost != cdb.end())
        throw UsageError("the service passes on only the first " +
                         std::to_string(orvik::kCdbLimit) + " bytes of a command: byte " +
                         std::to_string(lost - cdb.begin() + 1) + " of CDB, " + Hex({&*lost, 1}) +
                         ", would be lost. To do the same, " + WhatWorks(cdb.front()));
    cdb.erase(rest, cdb.end());
    return cdb;
}
