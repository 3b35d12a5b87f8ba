// Messages of the camera pipe, as structures and as bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iosfwd>
#include <span>

#include "bytes.h"
#include "commands.h"
#include "protocol/message.h"

/// One message in either direction.
struct Message {
    MessageHeader header;
    Bytes body;

    friend bool operator==(const Message& a, const Message& b) noexcept {
        return std::memcmp(&a.header, &b.header, sizeof(a.header)) == 0 && a.body == b.body;
    }
};
std::ostream& operator<<(std::ostream& stream, const Message& message);

// What the service sends.
Message Succeeded(std::uint32_t requestId, std::uint32_t cameraId, Bytes body = {});
Message Failed(std::uint32_t requestId, std::uint32_t cameraId);
Message Attached(std::uint32_t cameraId);
Message Detached(std::uint32_t cameraId);

Bytes HeaderBytes(const MessageHeader& header);

/// A whole message; the length in its header is that of `body`.
Bytes MessageBytes(std::uint32_t messageType, std::uint32_t requestId, std::uint32_t cameraId,
                   std::span<const std::byte> body = {});

/// A request of type 2, 3 or 4: the command, and what follows it in the body.
Bytes RequestBytes(std::uint32_t messageType, std::uint32_t requestId, std::uint32_t cameraId,
                   const Cdb& cdb, std::span<const std::byte> data = {});
