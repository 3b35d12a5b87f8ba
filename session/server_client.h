#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <windows.h>
#include <boost/smart_ptr/shared_ptr.hpp>

#include "device/io_operation.h"
#include "protocol/message.h"
#include "windows/unique_handle.h"

class Device;
class Server;

/// Whether a session still exists after a call that may have destroyed it. A caller that gets kGone
/// returns at once and touches no member of the session.
enum class [[nodiscard]] SessionState{
    kAlive,
    kGone,
};

/// One connected client of the camera pipe: reads its requests, sends them to the camera and
/// writes the answers. Main communicator and camera pipes are alike here; only the Server tells
/// them apart.
///
/// Thread: dispatcher only; there are no locks because there is no second thread.
/// Owns the pipe handle, at most one issued read and one issued write, and the camera it has open.
/// Owned by Server alone. Server::RemoveClient() destroys it, often from inside one of its own
/// handlers. Other functions that may do that return a SessionState.
///
/// A client that hangs up while a read or a write is pending is an ordinary end of the session, and
/// so is one that has hung up when a write is started. Handlers throw every other failure. That
/// includes a client that has already hung up when a read is started, which then fails at once with
/// ERROR_BROKEN_PIPE (109). An exception ends the service, and the session issues no more reads
/// after it.
class ServerClient {
public:
    /// Takes over a connected pipe instance that is bound to the completion port, and starts to
    /// read. `owner` is not owned and outlives the session.
    /// Throws WindowsException if the read cannot be started, also when the client has already
    /// hung up.
    ServerClient(Server* owner, UniqueHandle connectedPipe);

    /// Closes the pipe, and the camera if this session has one open. Neither waits nor cancels:
    /// operations that are issued stay behind and free themselves with their packets.
    ~ServerClient();

    ServerClient(const ServerClient&) = delete;
    ServerClient& operator=(const ServerClient&) = delete;

    /// Announces a camera to this client. kGone if the client has hung up.
    /// Throws as QueueWrite() does.
    SessionState SendCameraAttached(const Device& camera);

    /// Tells this client that a camera has gone. If it is the one this session has open, the
    /// session's requests to it fail from now on. Result and exceptions as for
    /// SendCameraAttached().
    SessionState SendCameraDetached(const Device& camera);

private:
    struct IoMemory;
    static constexpr std::uint32_t kNoCamera = 0xFFFFFFFF;

    void DoRead();

    /// Starts to read up to `length` bytes into the body, behind those received.
    void ReadBody(DWORD length);

    /// Enlarges the body so that a read of `length` bytes fits behind those received.
    /// Throws std::bad_alloc.
    void MakeRoomInBody(DWORD length);

    void ReadHeaderComplete(IoOperation* operation);
    void ReadBodyComplete(IoOperation* operation);

    /// Queues one entry; entries leave in the order queued, one WriteFile each. `bytes` is copied.
    /// Returns before they are written. kGone if the client has hung up.
    /// Throws WindowsException when the write cannot be started for any other reason, and
    /// std::bad_alloc.
    SessionState QueueWrite(std::span<const std::byte> bytes);
    SessionState QueueMessage(const MessageHeader& message);
    SessionState StartWrite();
    void WriteComplete(IoOperation* operation);

    /// Acts on the message just read.
    /// Throws std::runtime_error for a camera that does not exist, and as Device::Open() and
    /// QueueWrite() do.
    SessionState HandleRequest();

    /// Starts the transfer that the message just read asks for.
    SessionState StartTransfer(const boost::shared_ptr<Device>& camera);

    /// Opens the camera, having closed the one before; one that is open already stays open.
    /// Empty if there is no such camera.
    boost::shared_ptr<Device> AttachCamera(std::uint32_t cameraId);

    /// Answers the message just read.
    SessionState SendTransferFailed();

    void OnTransferComplete(IoOperation* operation);

    boost::shared_ptr<IoMemory> memory;  // shared with the callback of every operation
    KeptOperation headerReadOperation;
    KeptOperation bodyReadOperation;
    KeptOperation writeOperation;
    bool writing = false;  // a WriteFile is in flight on writeOperation
    Server* server;        // not owned; outlives every client
    UniqueHandle pipe;
    std::uint64_t received = 0;      // bytes of the current header or body so far
    std::uint64_t bodyCapacity = 0;  // bytes of memory->body, if there is one
    std::uint32_t attachedCameraId = kNoCamera;
    boost::shared_ptr<Device> attachedCamera;
};
