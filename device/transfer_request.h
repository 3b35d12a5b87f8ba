#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "protocol/message.h"

/// One request as a session hands it to Device::Transfer(); never on the wire.
struct TransferRequest {
    std::uint32_t type;        ///< a TransferType, or a type that Transfer() takes for kTransferOut
    std::uint32_t requestId;   ///< the client's own number for the request
    std::uint32_t cameraId;    ///< Device::Id()
    std::uint32_t bodyLength;  ///< of the client's message, in bytes
    std::array<std::byte, kCdbFieldSize> cdb;
};
