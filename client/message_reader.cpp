#include "client/message_reader.h"

#include <span>
#include <string>
#include <utility>

#include "orvik/client.h"

namespace orvik {

void CheckHeader(const MessageHeader& header) {
    bool sensible = false;
    switch (header.messageType) {
        case kTransferSucceeded:
            sensible = header.bodyLength <= kTransferInLimit;
            break;
        case kTransferFailed:
            sensible = header.bodyLength == 0;
            break;
        case kCameraAttached:
        case kCameraDetached:
            sensible = header.bodyLength == 0 && header.requestId == kNotificationId;
            break;
        default:
            break;
    }
    if (!sensible)
        throw Error(ErrorKind::kBadAnswer, "the service sent a message that makes no sense, type " +
                                               std::to_string(header.messageType) + " with " +
                                               std::to_string(header.bodyLength) + " bytes");
}

std::optional<Message> MessageReader::Read(PipeStream& pipe, const Deadline& deadline) {
    if (!headerComplete) {
        if (!Fill(pipe, std::as_writable_bytes(std::span(&message.header, 1)), deadline))
            return std::nullopt;
        CheckHeader(message.header);
        message.body.resize(message.header.bodyLength);
        headerComplete = true;
        received = 0;
    }
    if (!Fill(pipe, message.body, deadline))
        return std::nullopt;
    headerComplete = false;
    received = 0;
    return std::exchange(message, {});
}

bool MessageReader::Fill(PipeStream& pipe, std::span<std::byte> target, const Deadline& deadline) {
    while (received < target.size()) {
        std::optional<std::size_t> count;
        try {
            count = pipe.Read(target.subspan(received), deadline);
        } catch (const Error& error) {
            if (error.Kind() != ErrorKind::kServiceGone || (received == 0 && !headerComplete))
                throw;
            throw Error(ErrorKind::kServiceGone,
                        "the service closed the connection in the middle of a message",
                        error.SystemCode());
        }
        if (!count)
            return false;
        received += *count;
    }
    return true;
}

}  // namespace orvik
