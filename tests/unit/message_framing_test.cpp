// How a session takes messages from the bytes of its pipe, however they are cut.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <span>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <windows.h>

#include "call_log.h"
#include "import_hook.h"
#include "session_fixture.h"

namespace {

constexpr std::size_t kBlock = vcam::kBlockSize;

TEST_F(SessionTest, MessagesOfUnknownTypesAreDiscardedWhole) {
    Start();
    Bytes all;
    for (const std::uint32_t type : {0u, 1u, 5u, 7u, 0x80000002u, 0xFFFFFFFFu}) {
        all = std::move(all) + MessageBytes(type, 1, kFirstCamera, Pattern(3));
        all = std::move(all) + MessageBytes(type, 2, 99, {});
        all = std::move(all) + MessageBytes(type, 3, 99, Pattern(1000));
    }
    client->Write(all);
    const Message answer = Ask(3, Read6(1, 1));
    EXPECT_EQ(answer.body, MemoryAt(1, 1));
    EXPECT_EQ(client->Messages().size(), answers);
    EXPECT_EQ(output.Out() + output.Error(), "");
}

TEST_F(SessionTest, MessagesInOneWriteAreHandledInOrder) {
    Start();
    client->Write(MessageBytes(3, 100, kFirstCamera, Read6(1, 1)) + MessageBytes(3, 101, 0, {}) +
                  MessageBytes(2, 102, kFirstCamera, Write6(9, Pattern(512, 8))) +
                  MessageBytes(3, 103, kFirstCamera, Read6(9, 1)));
    WaitForMessage(*client, 5);
    std::map<std::uint32_t, Message> byId;
    for (const Message& message : client->Messages())
        byId[message.header.requestId] = message;
    EXPECT_EQ(byId[100].body, MemoryAt(1, 1));
    EXPECT_EQ(byId[101].header.messageType, 3u);
    EXPECT_EQ(byId[102].header.messageType, 2u);
    EXPECT_EQ(byId[103].body, Pattern(512, 8)) << "the write came after the read";
}

TEST_F(SessionTest, SplitHeaderStallsOnlyItsOwnSession) {
    Start();
    const auto other = ConnectAndAsk();
    const Bytes message = MessageBytes(3, 7, kFirstCamera, Read6(0, 1));
    const std::span<const std::byte> bytes(message);
    WriteAndDispatch(*client, bytes.first(5));
    output.Clear();
    client->Write(bytes.subspan(5, 11));
    port.DispatchUntil("the refusal", [&] {
        return output.Error() ==
               "IoOperation::Complete expected status == kPending, instead status = 1\n";
    });
    {
        const CallLog log;
        client->Write(bytes.subspan(16));
        client->Write(MessageBytes(3, 8, 0, {}));
        RoundTrip(*other);
        RoundTrip(*other);
        EXPECT_EQ(OutputCapture::Count(log.text, "R16"), 2u)
            << "only the other session reads its next headers: " << log.text;
    }
    EXPECT_EQ(client->Messages().size(), 1u) << "a stalled session answers";
    EXPECT_EQ(RequestsSeen(), 0u);
    // Nothing is being read that could notice the client's end.
    client.reset();
    RoundTrip(*other);
    EXPECT_EQ(Shutdowns(), 0u);
}

TEST_F(SessionTest, EmptyWriteOfAClientIsNoHeader) {
    Start();
    const auto other = ConnectAndAsk();
    client->Write({});
    port.DispatchUntil("the empty write", [&] { return client->PendingWrites() == 0; });
    RoundTrip(*other);  // it may stall the client's own session, and nothing else
    ExpectServing();
}

TEST_F(SessionTest, BodyInPiecesArrivesWhole) {
    Start();
    const Bytes data = Pattern(40 * kBlock, 5);
    const Bytes message = MessageBytes(2, 60, kFirstCamera, Write6(20, data));
    const std::span<const std::byte> bytes(message);
    client->Write(bytes.first(16));
    for (std::size_t at = 16; at < bytes.size();) {
        port.DispatchUntil("a piece", [&] { return client->PendingWrites() == 0; });
        port.DispatchQueued();
        const std::size_t size = std::min<std::size_t>(bytes.size() - at, 1 + at / 2);
        client->Write(bytes.subspan(at, size));
        at += size;
    }
    const Message answer = WaitForMessage(*client, 2);
    EXPECT_EQ(answer.header.requestId, 60u);
    EXPECT_EQ(answer.header.messageType, 2u);
    EXPECT_EQ(bus.ReadMemory(camera, 20 * kBlock, data.size()), data);
}

TEST_F(SessionTest, ContinuationReadAsksForTheWholeLengthAndWhatHasCome) {
    Start();
    const Bytes message = MessageBytes(7, 60, 0, Pattern(1000));
    const std::span<const std::byte> bytes(message);
    port.DispatchQueued();
    CallLog log;
    client->Write(bytes.first(16));
    const auto settle = [&] {
        port.DispatchUntil("a piece", [&] { return client->PendingWrites() == 0; });
        port.DispatchQueued();
    };
    settle();
    client->Write(bytes.subspan(16, 300));
    settle();
    client->Write(bytes.subspan(316, 400));
    settle();
    client->Write(bytes.subspan(716, 300));
    settle();
    std::string service = log.text;
    for (const char* own : {"W16 ", "W300 ", "W400 "}) {
        const std::size_t at = service.find(own);
        ASSERT_NE(at, std::string::npos) << service;
        service.erase(at, std::strlen(own));
    }
    service.erase(service.find("W300 "), 5);
    EXPECT_EQ(service, "Q R1000 Q R1300 Q R1700 Q R16");
}

TEST_F(SessionTest, BytesBehindABodyInPiecesAreDiscardedWithItsLastPiece) {
    Start();
    const Bytes body = Pattern(100);
    const Bytes message = MessageBytes(7, 60, 0, body);
    const std::span<const std::byte> bytes(message);
    WriteAndDispatch(*client, bytes.first(16 + 99));
    // More than fits behind the body, in one piece: 199 bytes are taken, the rest is a message.
    const Bytes glued =
        Bytes(bytes.begin() + 16 + 99, bytes.end()) + Pattern(198) + MessageBytes(3, 61, 0, {});
    client->Write(glued);
    const Message answer = WaitForMessage(*client, 2);
    EXPECT_EQ(answer.header.requestId, 61u);
    EXPECT_EQ(answer.header.messageType, 3u);
}

TEST_F(SessionTest, BodyOf64MebibytesInOneMessageAndInPieces) {
    vcam::PlugOptions options;
    options.blockCount = 16;
    Start(options);
    constexpr std::size_t kSize = 64 * 1024 * 1024;
    const Bytes body(kSize, std::byte{0x3C});
    client->Write(MessageBytes(7, 1, 0, body));
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 2u);

    const Bytes header = MessageBytes(7, 1, 0, body);
    client->Write(std::span(header).first(16));
    constexpr std::size_t kPiece = 5000000;
    for (std::size_t at = 0; at < kSize; at += kPiece) {
        client->Write(std::span(body).first(std::min(kPiece, kSize - at)));
        port.DispatchUntil("a piece", [&] { return client->PendingWrites() == 0; });
    }
    port.DispatchQueued();
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 2u);
}

TEST_F(SessionTest, TransferLengthAboveTheLargestSignedNumberFailsBeforeAnyCameraIsLookedUp) {
    Start();
    for (const std::uint32_t type : {2u, 4u}) {
        for (const std::uint32_t bodyLength : {0x80000010u, 0xFFFFFFFFu}) {
            SCOPED_TRACE("type " + std::to_string(type) + ", length " + std::to_string(bodyLength));
            // The body's memory is addresses alone: its read says that it is filled, and its
            // packet comes, without a byte of it.
            using Read = HookedImport<&__imp_ReadFile>;
            const Read read(
                [&](HANDLE file, void* to, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
                    if (size != bodyLength)
                        return Read::Original(file, to, size, done, overlapped);
                    return ::PostQueuedCompletionStatus(port.Get(), size, 1, overlapped);
                });
            const MessageHeader header{type, ++requests, 12345, bodyLength};
            client->Write(std::as_bytes(std::span(&header, 1)));
            const Message answer = WaitForMessage(*client, ++answers);
            EXPECT_EQ(answer.header.messageType, 3u);
            EXPECT_EQ(answer.header.requestId, requests);
            EXPECT_EQ(answer.header.cameraId, 12345u);
            EXPECT_EQ(answer.header.bodyLength, 0u);
        }
    }
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 2u);
}

TEST_F(SessionTest, TransferInMayHaveABodyOfAnyLength) {
    Start();
    constexpr std::uint32_t kBodyLength = 0x80000010;
    using Read = HookedImport<&__imp_ReadFile>;
    // As above; what the body holds is zeros, the command TEST UNIT READY.
    const Read read([&](HANDLE file, void* to, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
        if (size != kBodyLength)
            return Read::Original(file, to, size, done, overlapped);
        std::memset(to, 0, 16);
        return ::PostQueuedCompletionStatus(port.Get(), size, 1, overlapped);
    });
    const MessageHeader header{kTransferIn, ++requests, kFirstCamera, kBodyLength};
    client->Write(std::as_bytes(std::span(&header, 1)));
    EXPECT_EQ(WaitForMessage(*client, ++answers).header.messageType, 2u);
    EXPECT_EQ(RequestsSeen(), 1u);
}

}  // namespace
