// Fuzzes the checks of the client library: messages from the service, and data from the camera.
// scripts/fuzz builds it for the host, with clang's libFuzzer; it calls no Windows function.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <span>
#include <string>

#include "client/message_reader.h"
#include "orvik/client.h"

namespace orvik {

// The library's own constructor calls FormatMessageW.
Error::Error(ErrorKind errorKind, const std::string& text, std::uint32_t systemCode)
    : std::runtime_error(text),
      kind(errorKind),
      code(systemCode) {}

}  // namespace orvik

namespace {

void Require(bool condition) {
    if (!condition)
        std::abort();
}

bool IsPrintable(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/// Reads `stream` in pieces of at most `mostAtOnce` bytes. Every message must have the length that
/// its header names, and the bytes of the stream, in order.
void ReadMessages(std::span<const std::byte> stream, std::size_t mostAtOnce) {
    orvik::MessageReader reader;
    std::size_t messageStart = 0;
    std::size_t position = 0;
    while (position < stream.size()) {
        const std::span<std::byte> target = reader.Target();
        Require(!target.empty());
        const std::size_t count = std::min({target.size(), stream.size() - position, mostAtOnce});
        std::memcpy(target.data(), stream.data() + position, count);
        position += count;
        const std::optional<orvik::Message> message = reader.Received(count);
        Require(message.has_value() != reader.InTheMiddle());
        if (!message)
            continue;
        const MessageHeader& header = message->header;
        Require(header.messageType >= kTransferSucceeded && header.messageType <= kCameraDetached);
        Require(message->body.size() == header.bodyLength);
        Require(header.bodyLength == 0 || header.messageType == kTransferSucceeded);
        Require(header.bodyLength <= orvik::kTransferInLimit);
        Require(header.messageType < kCameraAttached || header.requestId == kNotificationId);
        Require(position == messageStart + sizeof(header) + header.bodyLength);
        Require(std::memcmp(&header, stream.data() + messageStart, sizeof(header)) == 0);
        Require(std::equal(message->body.begin(), message->body.end(),
                           stream.data() + messageStart + sizeof(header)));
        messageStart = position;
    }
}

void Decode(std::span<const std::byte> data) {
    try {
        const orvik::Inquiry inquiry = orvik::DecodeInquiry(data);
        Require(data.size() >= 36);
        Require(inquiry.deviceType < 32);
        Require(inquiry.vendor.size() <= 8 && IsPrintable(inquiry.vendor));
        Require(inquiry.product.size() <= 16 && IsPrintable(inquiry.product));
        Require(inquiry.revision.size() <= 4 && IsPrintable(inquiry.revision));
    } catch (const orvik::Error& error) {
        Require(error.Kind() == orvik::ErrorKind::kBadAnswer && data.size() < 36);
    }
    try {
        const orvik::Capacity capacity = orvik::DecodeCapacity(data);
        Require(capacity.blockLength != 0);
        Require(capacity.blockCount >= 1 && capacity.blockCount <= std::uint64_t{1} << 32);
    } catch (const orvik::Error& error) {
        Require(error.Kind() == orvik::ErrorKind::kBadAnswer);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    if (size == 0)
        return 0;
    const std::span<const std::byte> data = std::as_bytes(std::span(bytes + 1, size - 1));
    Decode(data);
    try {
        ReadMessages(data, std::size_t{bytes[0]} + 1);
    } catch (const orvik::Error& error) {
        Require(error.Kind() == orvik::ErrorKind::kBadAnswer);
    }
    return 0;
}
