#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include <windows.h>
#include <boost/smart_ptr/local_shared_ptr.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

#include "device/io_operation.h"
#include "protocol/message.h"
#include "windows/unique_handle.h"

class Device;
class Server;

/// One connected client of the camera pipe: reads its requests, sends them to the camera and
/// writes the answers. Main communicator and camera pipes are alike here; only the Server tells
/// them apart.
///
/// Thread: dispatcher only; there are no locks because there is no second thread.
/// Owns the pipe handle, at most one issued read and one issued write, and the camera it has open.
/// Owned by Server alone. Server::RemoveClient() destroys it, often from inside one of its own
/// handlers: whoever calls what may do that returns at once and touches no member afterwards.
///
/// A handler throws for every failure but a client that has hung up. That ends the service: after
/// it the session issues no more reads.
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

    /// Announces a camera to this client. Throws as QueueWrite() does.
    /// False: the client has hung up and this session is gone.
    [[nodiscard]] bool SendCameraAttached(const Device& camera);

    /// Tells this client that a camera has gone. If it is the one this session has open, the
    /// session's requests to it fail from now on. Result as for SendCameraAttached().
    [[nodiscard]] bool SendCameraDetached(const Device& camera);

private:
    struct IoMemory;
    static constexpr std::uint32_t kNoCamera = 0xFFFFFFFF;

    /// A completion callback that calls `handler` while this session lives, and afterwards frees
    /// the operation.
    template <void (ServerClient::*handler)(IoOperation*)>
    IoCallback CallbackTo() const;

    void DoRead();
    void ReadBody(std::uint64_t length);
    void ReadHeaderComplete(IoOperation* operation);
    void ReadBodyComplete(IoOperation* operation);

    /// Queues one entry; entries leave in the order queued, one WriteFile each. `bytes` is copied.
    /// Returns before they are written. False: the client has hung up and this session is gone.
    /// Throws WindowsException when the write cannot be started for any other reason.
    [[nodiscard]] bool QueueWrite(std::span<const std::byte> bytes);
    [[nodiscard]] bool QueueMessage(const MessageHeader& message);
    [[nodiscard]] bool StartWrite();
    void WriteComplete(IoOperation* operation);

    /// Acts on the message just read. False: this session is gone.
    /// Throws std::runtime_error for a camera that does not exist, and what Device::Open() throws.
    [[nodiscard]] bool HandleRequest();

    /// Starts the transfer that the message just read asks for. False: this session is gone.
    [[nodiscard]] bool StartTransfer(const boost::shared_ptr<Device>& camera);

    /// Opens the camera, having closed the one before; one that is open already stays open.
    /// Empty if there is no such camera.
    boost::shared_ptr<Device> AttachCamera(std::uint32_t cameraId);

    /// Answers the message just read. False: this session is gone.
    [[nodiscard]] bool SendTransferFailed();

    void OnTransferComplete(IoOperation* operation);

    boost::local_shared_ptr<IoMemory> memory;  // shared with the callback of every operation
    KeptOperation headerReadOperation;
    KeptOperation bodyReadOperation;
    KeptOperation writeOperation;
    bool writing = false;  // a WriteFile is in flight on writeOperation
    Server* server;        // not owned; outlives every client
    UniqueHandle pipe;
    std::uint64_t received = 0;  // bytes of the current header or body so far
    std::uint32_t attachedCameraId = kNoCamera;
    boost::shared_ptr<Device> attachedCamera;
};
