// A client of the camera pipe that knows the bytes and nothing else, so that tests can be as wrong
// as they like.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <windows.h>

#include "support/deadline.h"
#include "support/messages.h"
#include "windows/unique_handle.h"

namespace system_test {

/// One connection to the camera pipe. One thread at a time. Calls that fail or pass the deadline
/// throw std::system_error.
///
/// A client that leaves before the service waits for its next message ends the service's run, so
/// one that leaves while the service is to go on does it after an answer that came from the camera,
/// and with no request outstanding: then the service waits.
class RawClient {
public:
    /// Connects; waits while all instances of the pipe are busy. Asks for `accessRights` beside
    /// reading and writing.
    explicit RawClient(DWORD accessRights = 0);

    RawClient(RawClient&&) noexcept = default;
    RawClient& operator=(RawClient&&) noexcept = default;

    /// A client that has not left stays connected until CloseAbandonedConnections().
    ~RawClient();

    HANDLE Pipe() const noexcept { return pipe.get(); }

    /// The caller becomes the owner of the pipe, and closes it. The client can do nothing more.
    HANDLE Release() noexcept { return pipe.release(); }

    /// Leaves: the pipe is closed, and the client can do nothing more.
    void Leave() noexcept { pipe.reset(); }

    /// One WriteFile, waited for until the pipe has taken all of it.
    void Send(std::span<const std::byte> bytes);

    /// Sends a request of type 2, 3 or 4 in one write.
    void SendRequest(std::uint32_t messageType, std::uint32_t requestId, std::uint32_t cameraId,
                     const Cdb& cdb, std::span<const std::byte> data = {}) {
        Send(RequestBytes(messageType, requestId, cameraId, cdb, data));
    }

    /// Exactly `count` bytes.
    Bytes Receive(std::size_t count, const Deadline& deadline = Deadline());

    Message ReceiveMessage();

    /// None: it has not come in time.
    std::optional<Message> ReceiveMessageWithin(std::chrono::milliseconds time);

    /// Sends a request and takes the next message, whatever it is.
    Message Ask(std::uint32_t messageType, std::uint32_t requestId, std::uint32_t cameraId,
                const Cdb& cdb, std::span<const std::byte> data = {}) {
        SendRequest(messageType, requestId, cameraId, cdb, data);
        return ReceiveMessage();
    }

    /// A harmless round trip: a request without a body, which the service refuses without looking
    /// for the camera. Whatever it had to say before has come first; true if it was nothing.
    bool RoundTrip();

    /// Bytes that have come and are not read yet.
    std::size_t Available() const;

    /// Waits until the other end is closed, reading what comes before. Returns that.
    Bytes ReceiveUntilClosed();

private:
    /// Reads what there is, up to `size` bytes; nothing: the pipe was closed at the other end.
    std::size_t ReceiveSome(std::byte* to, std::size_t size, const Deadline& deadline);
    /// Waits for an operation that has been started; the error that it ended with.
    DWORD Finish(BOOL started, OVERLAPPED& overlapped, const Deadline& deadline, DWORD* count);

    UniqueHandle pipe;
    UniqueHandle event;  // of the one operation in progress
};

/// Closes the connections of the clients that were destroyed without having left. The service must
/// have ended: it may not have waited for all of them. Thread: any.
void CloseAbandonedConnections();

/// What a client is told when it connects, in order: the identifiers of the cameras. The client
/// stays connected.
std::vector<std::uint32_t> AnnouncedCameras();

}  // namespace system_test
