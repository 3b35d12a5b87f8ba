#include "session/server_client.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <utility>

#include <boost/smart_ptr/make_shared.hpp>

#include "device/device.h"
#include "device/windows_exception.h"
#include "server/server.h"
#include "session/io_memory.h"

namespace {

bool CallFailed(BOOL result) noexcept {
    return !result && ::GetLastError() != ERROR_IO_PENDING;
}

/// Whether the OVERLAPPED shows a pending operation. A packet may still come when it does not.
bool ShowsPending(const KeptOperation& operation) noexcept {
    return operation.Get() != nullptr && !HasOverlappedIoCompleted(&operation.Get()->overlapped);
}

}  // namespace

ServerClient::ServerClient(Server* owner, UniqueHandle connectedPipe)
    : memory(boost::make_shared<IoMemory>()),
      headerReadOperation(CallOwner<&ServerClient::ReadHeaderComplete>(memory)),
      bodyReadOperation(CallOwner<&ServerClient::ReadBodyComplete>(memory)),
      writeOperation(CallOwner<&ServerClient::WriteComplete>(memory)),
      server(owner),
      pipe(std::move(connectedPipe)) {
    memory->owner = this;
    DoRead();
}

ServerClient::~ServerClient() {
    std::cout << "ServerClient shutdown.\n" << std::flush;
    if (ShowsPending(headerReadOperation) || ShowsPending(bodyReadOperation) ||
        ShowsPending(writeOperation))
        std::cerr << "PROBLEM!!! ServerClient destructor with active overlapped structure.\n";
    memory->owner = nullptr;
    pipe.reset();
    if (attachedCamera) {
        attachedCamera->Close();
        attachedCamera.reset();
    }

    // Memory that no issued operation uses is freed now, and not with the last transfer's packet.
    if (!bodyReadOperation.IsIssued())
        memory->body.reset();
    auto& queue = memory->writeQueue;
    queue.erase(writeOperation.IsIssued() ? queue.begin() + 1 : queue.begin(), queue.end());
}

SessionState ServerClient::SendCameraAttached(const Device& camera) {
    return QueueMessage({kCameraAttached, kNotificationId, camera.Id(), 0});
}

SessionState ServerClient::SendCameraDetached(const Device& camera) {
    if (camera.Id() == attachedCameraId && attachedCamera)
        attachedCamera->SetRemoved();
    return QueueMessage({kCameraDetached, kNotificationId, camera.Id(), 0});
}

// A read that succeeds at once also queues a packet; one that fails at once does not. Kept on
// purpose: a client that is gone already (ERROR_BROKEN_PIPE) ends the run here, but not when the
// pending read of it fails. docs/protocol.md warns clients ("Disconnect early").
void ServerClient::DoRead() {
    auto* const target = reinterpret_cast<std::byte*>(&memory->header) + received;
    const auto size = static_cast<DWORD>(sizeof(MessageHeader) - received);
    if (CallFailed(
            ::ReadFile(pipe.get(), target, size, nullptr, &headerReadOperation.Get()->overlapped)))
        throw WindowsException("DoRead ReadFile failed.");
    headerReadOperation.SetIssued();
}

void ServerClient::ReadBody(DWORD length) {
    if (CallFailed(::ReadFile(pipe.get(), memory->body.get() + received, length, nullptr,
                              &bodyReadOperation.Get()->overlapped)))
        throw WindowsException();
    bodyReadOperation.SetIssued();
}

void ServerClient::MakeRoomInBody(DWORD length) {
    const std::uint64_t needed = received + length;
    if (needed <= bodyCapacity)
        return;
    // Some more, so that a body in many small pieces is not copied with each of them, but not more
    // than the last read can need, which is below three body lengths.
    const std::uint64_t capacity =
        std::min(needed + 2 * received, 3 * std::uint64_t{memory->header.bodyLength});
    auto larger = std::make_unique_for_overwrite<std::byte[]>(capacity);
    std::memcpy(larger.get(), memory->body.get(), received);
    memory->body = std::move(larger);
    bodyCapacity = capacity;
}

void ServerClient::ReadHeaderComplete(IoOperation* operation) {
    if (operation->status == IoOperation::kError) {
        if (operation->errorCode != ERROR_BROKEN_PIPE)
            throw WindowsException();
        server->RemoveClient(this);  // this session is gone
        return;
    }
    received += operation->bytesTransferred;
    if (received != sizeof(MessageHeader)) {
        // Kept on purpose: without a Reset() the operation refuses the packet of this read, and the
        // session reads nothing more. A client that writes a header in pieces stalls only itself.
        DoRead();
        return;
    }
    received = 0;
    operation->Reset();
    if (memory->header.bodyLength != 0) {
        bodyCapacity = memory->header.bodyLength;
        memory->body = std::make_unique_for_overwrite<std::byte[]>(bodyCapacity);
        ReadBody(memory->header.bodyLength);
        return;
    }
    memory->body.reset();
    if (HandleRequest() == SessionState::kAlive)
        DoRead();
}

void ServerClient::ReadBodyComplete(IoOperation* operation) {
    if (operation->status == IoOperation::kError) {
        if (operation->errorCode != ERROR_BROKEN_PIPE)
            throw WindowsException("ReadBodyComplete failed.");
        server->RemoveClient(this);  // this session is gone
        return;
    }
    received += operation->bytesTransferred;
    operation->Reset();
    const std::uint64_t bodyLength = memory->header.bodyLength;
    if (received >= bodyLength) {
        received = 0;
        if (HandleRequest() == SessionState::kAlive)
            DoRead();
        return;
    }
    // The next read asks for the whole length and what has been received, not for the rest, and so
    // takes along what a client sends behind a body in pieces. Clients know that they have to wait.
    constexpr std::uint64_t kLargestRead = std::numeric_limits<DWORD>::max();
    const auto next = static_cast<DWORD>(std::min(bodyLength + received, kLargestRead));
    MakeRoomInBody(next);
    ReadBody(next);
}

SessionState ServerClient::QueueWrite(std::span<const std::byte> bytes) {
    memory->writeQueue.emplace_back(bytes.begin(), bytes.end());
    return StartWrite();
}

SessionState ServerClient::QueueMessage(const MessageHeader& message) {
    return QueueWrite(std::as_bytes(std::span(&message, 1)));
}

SessionState ServerClient::StartWrite() {
    if (writing || memory->writeQueue.empty())
        return SessionState::kAlive;
    writing = true;
    const auto& entry = memory->writeQueue.front();
    if (CallFailed(::WriteFile(pipe.get(), entry.data(), static_cast<DWORD>(entry.size()), nullptr,
                               &writeOperation.Get()->overlapped))) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_NO_DATA && error != ERROR_BROKEN_PIPE)
            throw WindowsException();
        server->RemoveClient(this);
        return SessionState::kGone;
    }
    writeOperation.SetIssued();
    return SessionState::kAlive;
}

void ServerClient::WriteComplete(IoOperation* operation) {
    writing = false;
    memory->writeQueue.pop_front();
    if (operation->status == IoOperation::kError) {
        if (operation->errorCode != ERROR_BROKEN_PIPE) {
            ::SetLastError(operation->errorCode);  // freeing the entry may have changed it
            throw WindowsException("Write failed.");
        }
        server->RemoveClient(this);  // this session is gone
        return;
    }
    operation->Reset();
    static_cast<void>(StartWrite());
}
