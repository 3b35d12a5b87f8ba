// The protocol on the camera pipe, and the names by which other programs reach the service.
// docs/protocol.md describes it for people who write a client.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

// Inline, because a program that links the client library may use the same names itself.
inline namespace orvik_internal {

static_assert(std::endian::native == std::endian::little, "the wire is little-endian");

/// The pipe on which clients send the requests below.
inline constexpr wchar_t kCameraPipeName[] = LR"(\\.\pipe\orvikcamera)";

/// The pipe on which other programs register for crash dumps, with Breakpad's own protocol.
inline constexpr wchar_t kCrashPipeName[] = LR"(\\.\pipe\orvikcrashserver)";

/// The name under which the service is installed.
inline constexpr wchar_t kServiceName[] = L"OrvikService";

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

/// Message types from client to service. The service reads a message of any other type and drops
/// it.
enum TransferType : std::uint32_t {
    kTransferOut = 2,     ///< the client's data goes to the camera
    kTransferIn = 3,      ///< the camera's data comes back, at most kTransferInLength bytes
    kTransferNoData = 4,  ///< no data phase
};

/// Message types from service to client. 2, 3 and 4 mean something else in the other direction.
enum ServiceMessageType : std::uint32_t {
    kTransferSucceeded = 2,  ///< answer; the body is what a kTransferIn returned, else empty
    kTransferFailed = 3,     ///< answer; no body
    kCameraAttached = 4,     ///< notification; no body
    kCameraDetached = 5,     ///< notification; no body
};

/// `requestId` of every notification.
inline constexpr std::uint32_t kNotificationId = 0xFFFFFFFF;

/// Transfer length of every kTransferIn, in bytes, whatever the client's message says.
inline constexpr std::int32_t kTransferInLength = 65536;

/// Bytes of the command descriptor block (CDB) at the start of a request's body. The camera is told
/// that the CDB has kCdbLength bytes, whatever the command.
inline constexpr std::size_t kCdbFieldSize = 16;
inline constexpr std::uint8_t kCdbLength = 8;

}  // namespace orvik_internal
