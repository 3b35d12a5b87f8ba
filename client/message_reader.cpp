#include "client/message_reader.h"

#include <string>
#include <utility>

#include "orvik/client.h"

namespace orvik {

namespace {

void CheckHeader(const MessageHeader& header) {
    bool valid = false;
    switch (header.messageType) {
        case kTransferSucceeded:
            valid = header.bodyLength <= kTransferInLimit;
            break;
        case kTransferFailed:
            valid = header.bodyLength == 0;
            break;
        case kCameraAttached:
        case kCameraDetached:
            valid = header.bodyLength == 0 && header.requestId == kNotificationId;
            break;
        default:
            break;
    }
    if (!valid)
        throw Error(ErrorKind::kBadAnswer, "the service sent an invalid message of type " +
                                               std::to_string(header.messageType) + " with " +
                                               std::to_string(header.bodyLength) +
                                               " bytes of body");
}

}  // namespace

std::span<std::byte> MessageReader::Target() noexcept {
    const std::span<std::byte> whole = headerComplete
                                           ? std::span<std::byte>(message.body)
                                           : std::as_writable_bytes(std::span(&message.header, 1));
    return whole.subspan(received);
}

std::optional<Message> MessageReader::Received(std::size_t count) {
    received += count;
    if (!headerComplete) {
        if (received < sizeof(message.header))
            return std::nullopt;
        CheckHeader(message.header);
        message.body.resize(message.header.bodyLength);
        headerComplete = true;
        received = 0;
    }
    if (received < message.body.size())
        return std::nullopt;
    headerComplete = false;
    received = 0;
    return std::exchange(message, {});
}

}  // namespace orvik
