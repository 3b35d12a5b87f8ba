#include "session/server_client.h"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <limits>
#include <memory>
#include <utility>

#include <boost/smart_ptr/make_local_shared.hpp>

#include "device/device.h"
#include "device/windows_exception.h"
#include "server/server.h"
#include "session/io_memory.h"

namespace {

bool CallFailed(BOOL result) noexcept {
    return !result && ::GetLastError() != ERROR_IO_PENDING;
}

/// True if the OVERLAPPED says so, which is no word on whether a packet is still to come.
bool ShowsPending(const KeptOperation& operation) noexcept {
    return operation.Get() != nullptr && !HasOverlappedIoCompleted(&operation.Get()->overlapped);
}

}  // namespace

ServerClient::ServerClient(Server* owner, UniqueHandle connectedPipe)
    : memory(boost::make_local_shared<IoMemory>()),
      headerReadOperation(CallbackTo<&ServerClient::ReadHeaderComplete>()),
      bodyReadOperation(CallbackTo<&ServerClient::ReadBodyComplete>()),
      writeOperation(CallbackTo<&ServerClient::WriteComplete>()),
      server(owner),
      pipe(std::move(connectedPipe)) {
    memory->session = this;
    DoRead();
}

ServerClient::~ServerClient() {
    std::cout << "ServerClient shutdown.\n" << std::flush;
    if (ShowsPending(headerReadOperation) || ShowsPending(bodyReadOperation) ||
        ShowsPending(writeOperation))
        std::cerr << "PROBLEM!!! ServerClient destructor with active overlapped structure.\n";
    memory->session = nullptr;
    pipe.reset();
    if (attachedCamera) {
        attachedCamera->Close();
        attachedCamera.reset();
    }

    // What no issued operation uses goes now, and not with the last transfer's packet.
    if (!bodyReadOperation.IsIssued())
        memory->body.reset();
    auto& queue = memory->writeQueue;
    queue.erase(writeOperation.IsIssued() ? queue.begin() + 1 : queue.begin(), queue.end());
}

bool ServerClient::SendCameraAttached(const Device& camera) {
    return QueueMessage({kCameraAttached, kNotificationId, camera.Id(), 0});
}

bool ServerClient::SendCameraDetached(const Device& camera) {
    if (camera.Id() == attachedCameraId && attachedCamera)
        attachedCamera->SetRemoved();
    return QueueMessage({kCameraDetached, kNotificationId, camera.Id(), 0});
}

// A read that succeeds at once queues its packet all the same, one that fails at once does not.
void ServerClient::DoRead() {
    auto* const target = reinterpret_cast<std::byte*>(&memory->header) + received;
    const auto size = static_cast<DWORD>(sizeof(MessageHeader) - received);
    if (CallFailed(
            ::ReadFile(pipe.get(), target, size, nullptr, &headerReadOperation.Get()->overlapped)))
        throw WindowsException("DoRead ReadFile failed.");
    headerReadOperation.SetIssued();
}

/// Reads up to `length` bytes into the body, behind what is there.
void ServerClient::ReadBody(std::uint64_t length) {
    constexpr std::uint64_t kLargestRead = std::numeric_limits<DWORD>::max();
    if (CallFailed(::ReadFile(pipe.get(), memory->body.get() + received,
                              static_cast<DWORD>(std::min(length, kLargestRead)), nullptr,
                              &bodyReadOperation.Get()->overlapped)))
        throw WindowsException();
    bodyReadOperation.SetIssued();
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
        // Without a Reset(), so the packet of this read is refused and the session reads nothing
        // more: a client that writes a header in pieces stalls, and only itself.
        DoRead();
        return;
    }
    received = 0;
    operation->Reset();
    if (memory->header.bodyLength != 0) {
        memory->body = std::make_unique_for_overwrite<std::byte[]>(memory->header.bodyLength);
        ReadBody(memory->header.bodyLength);
        return;
    }
    memory->body.reset();
    if (HandleRequest())
        DoRead();
}

void ServerClient::ReadBodyComplete(IoOperation* operation) {
    if (operation->status == IoOperation::kError) {
        if (operation->errorCode != ERROR_BROKEN_PIPE)
            throw WindowsException("ReadBodyComplete failed.");
        server->RemoveClient(this);  // this session is gone
        return;
    }
    const bool firstPiece = received == 0;
    received += operation->bytesTransferred;
    operation->Reset();
    const std::uint64_t bodyLength = memory->header.bodyLength;
    if (received >= bodyLength) {
        received = 0;
        if (HandleRequest())
            DoRead();
        return;
    }
    // The next read asks for the whole length and what has come, not for the rest, and so takes
    // along what a client sends behind a body in pieces; clients know that they wait. From the
    // first piece on the body has room for the longest such read, which is below three lengths.
    if (firstPiece) {
        auto larger = std::make_unique_for_overwrite<std::byte[]>(3 * bodyLength);
        std::memcpy(larger.get(), memory->body.get(), received);
        memory->body = std::move(larger);
    }
    ReadBody(bodyLength + received);
}

bool ServerClient::QueueWrite(std::span<const std::byte> bytes) {
    memory->writeQueue.emplace_back(bytes.begin(), bytes.end());
    return StartWrite();
}

bool ServerClient::QueueMessage(const MessageHeader& message) {
    return QueueWrite(std::as_bytes(std::span(&message, 1)));
}

bool ServerClient::StartWrite() {
    if (writing || memory->writeQueue.empty())
        return true;
    writing = true;
    const auto& entry = memory->writeQueue.front();
    if (CallFailed(::WriteFile(pipe.get(), entry.data(), static_cast<DWORD>(entry.size()), nullptr,
                               &writeOperation.Get()->overlapped))) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_NO_DATA && error != ERROR_BROKEN_PIPE)
            throw WindowsException();
        server->RemoveClient(this);  // this session is gone
        return false;
    }
    writeOperation.SetIssued();
    return true;
}

void ServerClient::WriteComplete(IoOperation* operation) {
    writing = false;
    memory->writeQueue.pop_front();
    if (operation->status == IoOperation::kError) {
        if (operation->errorCode != ERROR_BROKEN_PIPE) {
            ::SetLastError(operation->errorCode);  // what frees the entry may have changed it
            throw WindowsException("Write failed.");
        }
        server->RemoveClient(this);  // this session is gone
        return;
    }
    operation->Reset();
    static_cast<void>(StartWrite());
}
