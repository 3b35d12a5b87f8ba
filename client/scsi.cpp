// SCSI commands, and checks of the data that a camera returns. Calls no Windows function.

#include "orvik/client.h"

#include <algorithm>

namespace orvik {

namespace {

constexpr std::uint8_t kTestUnitReady = 0x00;
constexpr std::uint8_t kRequestSense = 0x03;
constexpr std::uint8_t kRead6 = 0x08;
constexpr std::uint8_t kWrite6 = 0x0A;
constexpr std::uint8_t kInquiry = 0x12;
constexpr std::uint8_t kReadCapacity10 = 0x25;

constexpr std::size_t kStandardInquiryLength = 36;
constexpr std::uint8_t kLongestSenseData = 252;

template <typename... Values>
std::array<std::byte, sizeof...(Values)> Bytes(Values... values) noexcept {
    return {static_cast<std::byte>(values)...};
}

std::array<std::byte, 6> BlocksCdb(std::uint8_t operation, const std::string& name,
                                   std::uint32_t first, std::uint32_t count) {
    if (count == 0 || count > kRead6CountLimit)
        throw Error(ErrorKind::kBadArgument, name + ": count must be from 1 to " +
                                                 std::to_string(kRead6CountLimit) + "; it is " +
                                                 std::to_string(count));
    if (first >= kRead6BlockLimit || count > kRead6BlockLimit - first)
        throw Error(ErrorKind::kBadArgument,
                    name + ": first + count must be at most " + std::to_string(kRead6BlockLimit) +
                        "; first is " + std::to_string(first) + ", count " + std::to_string(count));
    return Bytes(operation, first >> 16, first >> 8 & 0xFF, first & 0xFF, count, 0);
}

/// The text of a fixed field, which is padded with spaces, by some devices with zeros.
std::string TextField(std::span<const std::byte> field) {
    std::string text;
    for (const std::byte value : field)
        text += static_cast<char>(value);
    text.erase(text.find_last_not_of(std::string(" \0", 2)) + 1);
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text;
}

std::uint32_t BigEndian(std::span<const std::byte, 4> bytes) noexcept {
    std::uint32_t value = 0;
    for (const std::byte next : bytes)
        value = value << 8 | std::to_integer<std::uint32_t>(next);
    return value;
}

void RequireLength(std::span<const std::byte> data, std::size_t least, const std::string& what) {
    if (data.size() < least)
        throw Error(ErrorKind::kBadAnswer,
                    "the camera's " + what + " data has " + std::to_string(data.size()) +
                        " bytes; it must have at least " + std::to_string(least));
}

}  // namespace

std::array<std::byte, 6> InquiryCdb() noexcept {
    return Bytes(kInquiry, 0, 0, 0, kStandardInquiryLength, 0);
}

std::array<std::byte, 6> TestUnitReadyCdb() noexcept {
    return Bytes(kTestUnitReady, 0, 0, 0, 0, 0);
}

std::array<std::byte, 8> ReadCapacityCdb() noexcept {
    return Bytes(kReadCapacity10, 0, 0, 0, 0, 0, 0, 0);
}

std::array<std::byte, 6> Read6Cdb(std::uint32_t first, std::uint32_t count) {
    return BlocksCdb(kRead6, "READ(6)", first, count);
}

std::array<std::byte, 6> Write6Cdb(std::uint32_t first, std::uint32_t count) {
    return BlocksCdb(kWrite6, "WRITE(6)", first, count);
}

std::array<std::byte, 6> RequestSenseCdb() noexcept {
    return Bytes(kRequestSense, 0, 0, 0, kLongestSenseData, 0);
}

Inquiry DecodeInquiry(std::span<const std::byte> data) {
    RequireLength(data, kStandardInquiryLength, "INQUIRY");
    constexpr std::byte kDeviceTypeMask{0x1F};
    constexpr std::byte kRemovableBit{0x80};
    return {.deviceType = std::to_integer<std::uint8_t>(data[0] & kDeviceTypeMask),
            .removable = (data[1] & kRemovableBit) != std::byte{0},
            .vendor = TextField(data.subspan(8, 8)),
            .product = TextField(data.subspan(16, 16)),
            .revision = TextField(data.subspan(32, 4))};
}

Capacity DecodeCapacity(std::span<const std::byte> data) {
    RequireLength(data, 8, "READ CAPACITY");
    const std::uint32_t lastBlock = BigEndian(data.first<4>());
    const std::uint32_t blockLength = BigEndian(data.subspan<4, 4>());
    if (blockLength == 0)
        throw Error(ErrorKind::kBadAnswer, "the camera reports a block length of 0");
    return {.blockCount = std::uint64_t{lastBlock} + 1, .blockLength = blockLength};
}

}  // namespace orvik
