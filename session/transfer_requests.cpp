// The requests of a session: from a complete message to the camera, and from the transfer's packet
// to the answer.

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

#include "device/device.h"
#include "device/windows_exception.h"
#include "server/server.h"
#include "session/io_memory.h"
#include "session/server_client.h"
#include "windows/unique_memory.h"

namespace {

bool IsTransferRequest(std::uint32_t messageType) noexcept {
    return messageType == kTransferOut || messageType == kTransferIn ||
           messageType == kTransferNoData;
}

/// A body holds a command, and for all but kTransferIn, whose length is fixed, the rest of it is
/// the transfer length, which the camera layer takes as a signed number.
bool IsBodyLengthValid(const MessageHeader& header) noexcept {
    constexpr std::uint32_t kLargestTransfer = std::numeric_limits<std::int32_t>::max();
    if (header.bodyLength < kCdbFieldSize)
        return false;
    return header.messageType == kTransferIn ||
           header.bodyLength - kCdbFieldSize <= kLargestTransfer;
}

/// True for an I/O call that returned failure but queued a packet: the system queues one for a
/// warning status, such as that of a data overrun, and none for an error status.
bool PacketFollows(const IoOperation& operation) noexcept {
    constexpr unsigned kWarning = 2;  // severity in the two highest bits of an NTSTATUS
    return static_cast<std::uint32_t>(operation.overlapped.Internal) >> 30 == kWarning;
}

}  // namespace

SessionState ServerClient::HandleRequest() {
    const MessageHeader& header = memory->header;
    if (!IsTransferRequest(header.messageType))
        return SessionState::kAlive;
    // Before the camera is looked up: clients use such a request as a harmless round trip.
    if (!IsBodyLengthValid(header))
        return SendTransferFailed();

    const boost::shared_ptr<Device> camera = AttachCamera(header.cameraId);
    if (!camera)
        throw std::runtime_error("Bad camera in request.");
    if (camera->Removed())
        return SendTransferFailed();
    return StartTransfer(camera);
}

SessionState ServerClient::StartTransfer(const boost::shared_ptr<Device>& camera) {
    const MessageHeader& header = memory->header;
    const std::byte* const body = memory->body.get();
    TransferRequest request{
        header.messageType, header.requestId, header.cameraId, header.bodyLength, {}};
    std::memcpy(request.cdb.data(), body, kCdbFieldSize);

    auto operation =
        std::make_unique<IoOperation>(CallOwner<&ServerClient::OnTransferComplete>(memory));
    try {
        if (header.messageType == kTransferIn)
            camera->Transfer(operation.get(), &request, nullptr, kTransferInLength);
        else
            camera->Transfer(operation.get(), &request, body + kCdbFieldSize,
                             static_cast<std::int32_t>(header.bodyLength - kCdbFieldSize));
    } catch (const WindowsException&) {
        operation->transferBuffer = nullptr;  // already freed
        if (PacketFollows(*operation)) {
            operation->callback = DiscardOperation;
            static_cast<void>(operation.release());
        }
        // The answer's write may destroy this session, and RemoveDevice() may notify it, if it is
        // the main communicator. The link knows the state after both.
        const boost::shared_ptr<IoMemory> link = memory;
        Server* const owner = server;
        static_cast<void>(SendTransferFailed());
        owner->RemoveDevice(camera);
        return link->owner != nullptr ? SessionState::kAlive : SessionState::kGone;
    }
    static_cast<void>(operation.release());  // issued: OnTransferComplete frees it
    return SessionState::kAlive;
}

boost::shared_ptr<Device> ServerClient::AttachCamera(std::uint32_t cameraId) {
    if (cameraId != attachedCameraId) {
        if (attachedCamera) {
            attachedCamera->Close();
            attachedCamera.reset();
            attachedCameraId = kNoCamera;
        }
        attachedCamera = server->FindDevice(cameraId);
        if (attachedCamera) {
            attachedCamera->Open();
            attachedCameraId = attachedCamera->Id();
        }
    }
    return attachedCamera;
}

SessionState ServerClient::SendTransferFailed() {
    const MessageHeader& header = memory->header;
    return QueueMessage({kTransferFailed, header.requestId, header.cameraId, 0});
}

void ServerClient::OnTransferComplete(IoOperation* operation) {
    const std::unique_ptr<IoOperation> done(operation);
    const UniqueMalloc block(operation->transferBuffer);
    auto* const buffer = static_cast<PassThroughBuffer*>(block.get());

    // The identifiers come from the block: the session's header belongs to a later message by now.
    if (operation->status == IoOperation::kError || buffer->scsi.ScsiStatus != 0) {
        static_cast<void>(QueueMessage({kTransferFailed, buffer->requestId, buffer->cameraId, 0}));
        return;
    }
    // The driver's count is not trusted: one that had no data to return may count the system's
    // record alone, and a faulty one may count more than the block holds.
    std::uint32_t length = 0;
    if (buffer->dataIn != 0 && operation->bytesTransferred > sizeof(PassThroughBuffer)) {
        constexpr std::uint32_t kMost = kTransferInLength;
        length = std::min(
            operation->bytesTransferred - static_cast<std::uint32_t>(sizeof(PassThroughBuffer)),
            kMost);
    }
    if (QueueMessage({kTransferSucceeded, buffer->requestId, buffer->cameraId, length}) ==
        SessionState::kGone)
        return;
    if (length != 0)
        static_cast<void>(QueueWrite({buffer->Data(), length}));
}
