#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

#include "orvik/client.h"
#include "protocol/message.h"

namespace orvik {

// Builds the messages that a client sends, as bytes of the wire protocol. Thread: any.

/// A transfer: the header, the CDB in its field, then the data. The request id is 0 until
/// SetRequestId().
/// Throws Error kBadArgument if `cdb` has a length that cannot be sent, or `data` more than
/// `transferOutLimit` bytes.
std::vector<std::byte> MakeTransferRequest(TransferType type, CameraId camera,
                                           std::span<const std::byte> cdb,
                                           std::span<const std::byte> data,
                                           std::size_t transferOutLimit);

using RoundTripRequest = std::array<std::byte, sizeof(MessageHeader)>;

/// A request that touches no camera: it has no CDB, and the service refuses such a request before
/// it looks for the camera.
RoundTripRequest MakeRoundTripRequest(RequestId id = 0) noexcept;

/// Writes `id` into the header of `message`.
void SetRequestId(std::span<std::byte> message, RequestId id) noexcept;

}  // namespace orvik
