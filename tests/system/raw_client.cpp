#include "raw_client.h"

#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>

#include <gtest/gtest.h>

#include "running_service.h"

namespace system_test {

namespace {

std::mutex abandonedMutex;
std::vector<UniqueHandle> abandoned;  // connections

[[noreturn]] void Fail(DWORD error, const std::string& what) {
    throw std::system_error(static_cast<int>(error), std::system_category(), what);
}

UniqueHandle Connect(DWORD accessRights) {
    const Deadline deadline;
    for (;;) {
        UniqueHandle pipe = OwnFile(::CreateFileW(
            kCameraPipeName, GENERIC_READ | GENERIC_WRITE | accessRights, 0, nullptr, OPEN_EXISTING,
            FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
        if (pipe)
            return pipe;
        const DWORD error = ::GetLastError();
        if (error != ERROR_PIPE_BUSY || deadline.Over())
            Fail(error, "connecting");
        // Its result does not matter: another client may be faster all the same.
        ::WaitNamedPipeW(kCameraPipeName, deadline.MillisecondsLeft());
    }
}

}  // namespace

RawClient::RawClient(DWORD accessRights)
    : pipe(Connect(accessRights)),
      event(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

RawClient::~RawClient() {
    if (!pipe)
        return;
    const std::lock_guard lock(abandonedMutex);
    abandoned.push_back(std::move(pipe));
}

DWORD RawClient::Finish(BOOL started, OVERLAPPED& overlapped, const Deadline& deadline,
                        DWORD* count) {
    if (!started && ::GetLastError() != ERROR_IO_PENDING)
        return ::GetLastError();
    const bool late =
        ::WaitForSingleObject(event.get(), deadline.MillisecondsLeft()) != WAIT_OBJECT_0;
    if (late)
        ::CancelIoEx(pipe.get(), &overlapped);
    // After a cancel too: the buffer belongs to the system until the operation has ended.
    if (::GetOverlappedResult(pipe.get(), &overlapped, count, TRUE))
        return ERROR_SUCCESS;
    const DWORD error = ::GetLastError();
    return late && error == ERROR_OPERATION_ABORTED ? DWORD{ERROR_TIMEOUT} : error;
}

void RawClient::Send(std::span<const std::byte> bytes) {
    OVERLAPPED overlapped{};
    overlapped.hEvent = event.get();
    DWORD count = 0;
    const BOOL started = ::WriteFile(pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()),
                                     nullptr, &overlapped);
    const DWORD error = Finish(started, overlapped, Deadline(), &count);
    if (error != ERROR_SUCCESS || count != bytes.size())
        Fail(error, "sending " + std::to_string(bytes.size()) + " bytes, " + std::to_string(count) +
                        " sent");
}

std::size_t RawClient::ReceiveSome(std::byte* to, std::size_t size, const Deadline& deadline) {
    OVERLAPPED overlapped{};
    overlapped.hEvent = event.get();
    DWORD count = 0;
    const BOOL started = ::ReadFile(pipe.get(), to, static_cast<DWORD>(size), nullptr, &overlapped);
    const DWORD error = Finish(started, overlapped, deadline, &count);
    if (error != ERROR_SUCCESS && error != ERROR_BROKEN_PIPE)
        Fail(error, "receiving");
    return count;
}

Bytes RawClient::Receive(std::size_t count, const Deadline& deadline) {
    Bytes bytes(count);
    for (std::size_t done = 0; done < count;) {
        const std::size_t more = ReceiveSome(bytes.data() + done, count - done, deadline);
        if (more == 0)
            Fail(ERROR_BROKEN_PIPE, "receiving, after " + std::to_string(done) + " of " +
                                        std::to_string(count) + " bytes");
        done += more;
    }
    return bytes;
}

Message RawClient::ReceiveMessage() {
    Message message;
    const Bytes header = Receive(sizeof(message.header));
    std::memcpy(&message.header, header.data(), header.size());
    message.body = Receive(message.header.bodyLength);
    return message;
}

std::optional<Message> RawClient::ReceiveMessageWithin(std::chrono::milliseconds time) {
    Message message;
    try {
        // The service writes a header at once: either all of it comes in time or nothing.
        const Bytes header = Receive(sizeof(message.header), Deadline(time));
        std::memcpy(&message.header, header.data(), header.size());
    } catch (const std::system_error& error) {
        if (error.code().value() == ERROR_TIMEOUT)
            return std::nullopt;
        throw;
    }
    message.body = Receive(message.header.bodyLength);
    return message;
}

bool RawClient::RoundTrip() {
    constexpr std::uint32_t kRoundTripId = 0x5052494E;
    Send(HeaderBytes({kTransferNoData, kRoundTripId, 0, 0}));
    for (bool silent = true;; silent = false) {
        if (ReceiveMessage() == Failed(kRoundTripId, 0))
            return silent;
    }
}

std::size_t RawClient::Available() const {
    DWORD count = 0;
    if (!::PeekNamedPipe(pipe.get(), nullptr, 0, nullptr, &count, nullptr))
        Fail(::GetLastError(), "PeekNamedPipe");
    return count;
}

Bytes RawClient::ReceiveUntilClosed() {
    const Deadline deadline;
    Bytes all;
    std::byte buffer[4096];
    while (const std::size_t count = ReceiveSome(buffer, sizeof(buffer), deadline))
        all.insert(all.end(), buffer, buffer + count);
    return all;
}

void CloseAbandonedConnections() {
    const std::lock_guard lock(abandonedMutex);
    abandoned.clear();
}

std::vector<std::uint32_t> AnnouncedCameras() {
    RawClient client;
    client.Send(HeaderBytes({kTransferNoData, 0, 0, 0}));
    std::vector<std::uint32_t> identifiers;
    for (;;) {
        const Message message = client.ReceiveMessage();
        if (message == Failed(0, 0))
            return identifiers;
        EXPECT_EQ(message, Attached(message.header.cameraId));
        identifiers.push_back(message.header.cameraId);
    }
}

}  // namespace system_test
