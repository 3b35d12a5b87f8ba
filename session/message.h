// The messages on the camera pipe. docs/protocol.md describes them for clients.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "device/transfer_request.h"

static_assert(std::endian::native == std::endian::little, "the wire is little-endian");

/// Starts every message in either direction; `bodyLength` bytes of body follow it.
struct MessageHeader {
    std::uint32_t messageType;
    std::uint32_t requestId;   ///< the client's choice, echoed; kNotificationId in notifications
    std::uint32_t cameraId;    ///< as announced by kCameraAttached
    std::uint32_t bodyLength;  ///< in bytes; 0 means no body
};
static_assert(sizeof(MessageHeader) == 16);
static_assert(offsetof(MessageHeader, messageType) == 0);
static_assert(offsetof(MessageHeader, requestId) == 4);
static_assert(offsetof(MessageHeader, cameraId) == 8);
static_assert(offsetof(MessageHeader, bodyLength) == 12);

// From client to service the message types are those of TransferType (device/transfer_request.h);
// a message of any other type is read and dropped.

/// Message types from service to client. 2 and 3 mean something else in the other direction.
enum ServiceMessageType : std::uint32_t {
    kTransferSucceeded = 2,  ///< answer; the body is what a kTransferIn returned, else empty
    kTransferFailed = 3,     ///< answer; no body
    kCameraAttached = 4,     ///< notification; no body
    kCameraDetached = 5,     ///< notification; no body
};

/// `requestId` of every notification.
inline constexpr std::uint32_t kNotificationId = 0xFFFFFFFF;
