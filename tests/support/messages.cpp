#include "messages.h"

#include <ostream>
#include <utility>

std::ostream& operator<<(std::ostream& stream, const Message& message) {
    const MessageHeader& header = message.header;
    stream << "{type " << header.messageType << ", request " << header.requestId << ", camera "
           << header.cameraId << ", length " << header.bodyLength << "}";
    if (!message.body.empty())
        stream << " and " << message.body.size() << " bytes";
    return stream;
}

Message Succeeded(std::uint32_t requestId, std::uint32_t cameraId, Bytes body) {
    const auto length = static_cast<std::uint32_t>(body.size());
    return {{kTransferSucceeded, requestId, cameraId, length}, std::move(body)};
}

Message Failed(std::uint32_t requestId, std::uint32_t cameraId) {
    return {{kTransferFailed, requestId, cameraId, 0}, {}};
}

Message Attached(std::uint32_t cameraId) {
    return {{kCameraAttached, kNotificationId, cameraId, 0}, {}};
}

Message Detached(std::uint32_t cameraId) {
    return {{kCameraDetached, kNotificationId, cameraId, 0}, {}};
}

Bytes HeaderBytes(const MessageHeader& header) {
    const auto bytes = std::as_bytes(std::span(&header, 1));
    return {bytes.begin(), bytes.end()};
}

Bytes MessageBytes(std::uint32_t messageType, std::uint32_t requestId, std::uint32_t cameraId,
                   std::span<const std::byte> body) {
    return HeaderBytes(
               {messageType, requestId, cameraId, static_cast<std::uint32_t>(body.size())}) +
           body;
}

Bytes RequestBytes(std::uint32_t messageType, std::uint32_t requestId, std::uint32_t cameraId,
                   const Cdb& cdb, std::span<const std::byte> data) {
    return MessageBytes(messageType, requestId, cameraId, cdb + data);
}
