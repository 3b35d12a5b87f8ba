// Limits of the memory that a session allocates for a client that announces a long body, and of the
// bytes that it sends for a driver that reports too many.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "call_log.h"
#include "guarded_heap.h"
#include "in_process_service.h"

namespace {

constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
constexpr DWORD kWholeBlock = 65601;       // what a driver counts that returns 65536 bytes
constexpr std::uint32_t kUnknownType = 7;  // a message that is read and dropped

class SessionLimitsTest : public InProcessService {
protected:
    void TearDown() override {
        client.reset();
        InProcessService::TearDown();
    }

    void Start() {
        StartServer();
        client = Connect();
        port.DispatchQueued();
    }

    /// Writes, and dispatches until the service has taken all of it and waits again.
    void WriteAndSettle(std::span<const std::byte> bytes) {
        client->Write(bytes);
        port.DispatchUntil("a piece", [&] { return client->PendingWrites() == 0; });
        port.DispatchQueued();
    }

    /// The header of a message whose body is `bodyLength` bytes.
    void SendHeader(std::uint32_t bodyLength) {
        const MessageHeader header{kUnknownType, 1, 0, bodyLength};
        WriteAndSettle(std::as_bytes(std::span(&header, 1)));
    }

    std::unique_ptr<PipeClient> client;
};

// Wine does not deliver a packet with such a count, so the test changes the count of the packet.
TEST_F(SessionLimitsTest, DriverThatClaimsMoreThanItsBlockHoldsIsAnsweredWithTheBlocksDataAlone) {
    const vcam::CameraId camera = Plug();
    const Bytes memory = Pattern(65536);
    bus.WriteMemory(camera, 0, memory);
    Start();
    DWORD claimed = 0;
    using Dequeue = HookedImport<&__imp_GetQueuedCompletionStatus>;
    const Dequeue dequeue(
        [&](HANDLE from, DWORD* bytes, ULONG_PTR* key, OVERLAPPED** operation, DWORD wait) {
            const BOOL result = Dequeue::Original(from, bytes, key, operation, wait);
            if (*bytes == kWholeBlock)
                *bytes = claimed;
            return result;
        });
    std::size_t messages = 1;  // kCameraAttached
    for (const DWORD count : {kWholeBlock, kWholeBlock + 1, kWholeBlock + 4096, 0xFFFFFFFFul}) {
        claimed = count;
        SCOPED_TRACE(claimed);
        client->Write(MessageBytes(3, claimed, kFirstCamera, Read6(0, 128)));
        const Message answer = WaitForMessage(*client, ++messages);
        EXPECT_EQ(answer.header.messageType, 2u);
        EXPECT_EQ(answer.header.requestId, claimed);
        EXPECT_EQ(answer.body, memory);
    }
}

// The reads of the body do not reach the system, which would touch 8 GiB of memory. The first gets
// one byte, the second the rest.
TEST_F(SessionLimitsTest, ClientThatAnnouncesFourGibibytesAndSendsAByteCostsTwoBlocksOfThatSize) {
    ORVIK_NEEDS_GUARDED_HEAP();
    constexpr std::uint32_t kLength = 0xFFFFFFFF;
    Start();
    std::vector<DWORD> bodyReads;
    using Read = HookedImport<&__imp_ReadFile>;
    const Read read([&](HANDLE file, void* to, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
        if (size < kMebibyte)
            return Read::Original(file, to, size, done, overlapped);
        bodyReads.push_back(size);
        const DWORD count = bodyReads.size() == 1 ? 1 : kLength - 1;
        return ::PostQueuedCompletionStatus(port.Get(), count, 1, overlapped);
    });
    guarded_heap::AllocationRecord record;
    SendHeader(kLength);
    port.DispatchUntil("the second read", [&] { return bodyReads.size() == 2; });
    const std::vector<std::size_t> allocations = record.Stop();
    port.DispatchQueued();
    EXPECT_EQ(bodyReads, (std::vector<DWORD>{kLength, kLength}));
    std::vector<std::size_t> large;
    std::copy_if(allocations.begin(), allocations.end(), std::back_inserter(large),
                 [](std::size_t size) { return size > kMebibyte; });
    ASSERT_EQ(large.size(), 2u);
    EXPECT_EQ(large[0], kLength);
    EXPECT_LE(large[1], std::size_t{kLength} + 3) << "room for the next read, and little more";
    RoundTrip(*client);
}

TEST_F(SessionLimitsTest, BodyInManyPiecesIsCopiedFewTimes) {
    ORVIK_NEEDS_GUARDED_HEAP();
    Start();
    constexpr std::size_t kLength = 64 * 1024;
    guarded_heap::AllocationRecord record;
    SendHeader(kLength);
    for (std::size_t at = 0; at < kLength; at += 256)
        WriteAndSettle(Pattern(256));
    std::size_t bodies = 0;
    for (const std::size_t size : record.Stop()) {
        EXPECT_LE(size, 3 * kLength);
        bodies += size >= kLength ? 1u : 0u;
    }
    EXPECT_LE(bodies, 9u) << "one, and one more each time that twice as many bytes were received";
    RoundTrip(*client);
}

// The read for the rest asks for the length and the bytes received.
TEST_F(SessionLimitsTest, LargeBodyInPiecesSwallowsAsMuchAsASmallOne) {
    Start();
    constexpr std::size_t kLength = 3 * kMebibyte;
    SendHeader(kLength);
    WriteAndSettle(Pattern(kMebibyte));
    const Bytes glued =
        Pattern(kLength - kMebibyte) + Pattern(2 * kMebibyte) + MessageBytes(3, 61, 0, {});
    client->Write(glued);
    const Message answer = WaitForMessage(*client, 1);
    EXPECT_EQ(answer.header.requestId, 61u);
    EXPECT_EQ(answer.header.messageType, 3u);
}

}  // namespace
