#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// What a client asks of a camera. The codes are those of the wire protocol (session/message.h).
enum TransferType : std::uint32_t {
    kTransferOut = 2,     ///< the client's data goes to the camera
    kTransferIn = 3,      ///< the camera's data comes back, at most kTransferInLength bytes
    kTransferNoData = 4,  ///< no data phase
};

/// Transfer length of every kTransferIn, in bytes, whatever the client's message says.
inline constexpr std::int32_t kTransferInLength = 65536;

/// Bytes of a command descriptor block in a request and in the pass-through block. The camera is
/// told that it is kCdbLength long.
inline constexpr std::size_t kCdbFieldSize = 16;
inline constexpr std::uint8_t kCdbLength = 8;

/// One request as a session hands it to Device::Transfer(); never on the wire.
struct TransferRequest {
    std::uint32_t type;        ///< a TransferType
    std::uint32_t requestId;   ///< the client's own number for the request
    std::uint32_t cameraId;    ///< Device::Id()
    std::uint32_t bodyLength;  ///< of the client's message, in bytes
    std::array<std::byte, kCdbFieldSize> cdb;
};
