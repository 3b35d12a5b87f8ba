// One client's requests and their answers: the wire protocol, the session, the transfers.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "call_log.h"
#include "device/device.h"
#include "device/windows_exception.h"
#include "guarded_heap.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "session/server_client.h"

namespace {

constexpr std::size_t kBlock = vcam::kBlockSize;

class SessionTest : public InProcessService {
protected:
    void TearDown() override {
        client.reset();
        memory = Bytes();
        InProcessService::TearDown();
    }

    /// A camera with a known memory, the server, and a client that knows of the camera.
    void Start(const vcam::PlugOptions& options = {}) {
        camera = Plug(options);
        memory = Pattern(std::size_t{options.blockCount} * kBlock);
        bus.WriteMemory(camera, 0, memory);
        StartServer();
        client = Connect();
        WaitForMessage(*client, 1);
        answers = 1;
        output.Clear();
    }

    /// Sends a request and dispatches until it is answered.
    Message Ask(std::uint32_t type, std::span<const std::byte> body,
                std::uint32_t cameraId = kFirstCamera) {
        client->Write(MessageBytes(type, ++requests, cameraId, body));
        Message answer = WaitForMessage(*client, ++answers);
        EXPECT_EQ(answer.header.requestId, requests);
        EXPECT_EQ(answer.header.cameraId, cameraId);
        EXPECT_EQ(answer.header.bodyLength, answer.body.size());
        return answer;
    }

    Bytes MemoryAt(std::size_t block, std::size_t count) const {
        const auto start = memory.begin() + static_cast<std::ptrdiff_t>(block * kBlock);
        return {start, start + static_cast<std::ptrdiff_t>(count * kBlock)};
    }

    std::uint64_t RequestsSeen() { return bus.Counters(camera).requests; }

    vcam::CameraId camera = 0;
    Bytes memory;
    std::unique_ptr<PipeClient> client;
    std::size_t answers = 0;
    std::uint32_t requests = 0;
};

TEST_F(SessionTest, TransferInAnswersWithExactlyWhatTheCameraReturned) {
    Start();
    for (const int blocks : {1, 2, 127, 128}) {
        SCOPED_TRACE(blocks);
        const Message answer = Ask(3, Read6(5, static_cast<std::uint8_t>(blocks)));
        EXPECT_EQ(answer.header.messageType, 2u);
        EXPECT_EQ(answer.body, MemoryAt(5, static_cast<std::size_t>(blocks)));
    }
    EXPECT_EQ(output.Out() + output.Error(), "") << "a request writes no line";
}

TEST_F(SessionTest, TransferInAsksFor65536BytesWhateverItsBodyLength) {
    Start();
    const Message answer = Ask(3, Read6(0, 1) + Pattern(84));
    EXPECT_EQ(answer.header.messageType, 2u);
    EXPECT_EQ(answer.body, MemoryAt(0, 1));
    const vcam::Request request = bus.LastRequests(camera, 1).at(0);
    EXPECT_EQ(request.inputLength, 65601u);
    EXPECT_EQ(request.outputLength, 65601u);
    EXPECT_EQ(
        reinterpret_cast<const PassThroughBuffer*>(request.block.data())->scsi.DataTransferLength,
        65536u);
}

TEST_F(SessionTest, TransferOutOf528BytesSends512AndABlockOf577) {
    Start();
    const Bytes data = Pattern(512, 3);
    const Message answer = Ask(2, Write6(7, data));
    EXPECT_EQ(answer.header.messageType, 2u);
    EXPECT_EQ(answer.header.bodyLength, 0u);
    EXPECT_EQ(bus.ReadMemory(camera, 7 * kBlock, 512), data);
    const vcam::Request request = bus.LastRequests(camera, 1).at(0);
    EXPECT_EQ(request.inputLength, 577u);
    EXPECT_EQ(Bytes(request.block.begin() + 65, request.block.end()), data);
}

TEST_F(SessionTest, TransferOutOfTheCommandAloneSucceedsWithoutABody) {
    Start();
    const Message answer = Ask(2, TestUnitReady());
    EXPECT_EQ(answer.header.messageType, 2u);
    EXPECT_EQ(answer.header.bodyLength, 0u);
    EXPECT_EQ(bus.LastRequests(camera, 1).at(0).inputLength, 65u);
}

TEST_F(SessionTest, TransferWithoutDataSendsZerosInPlaceOfItsFurtherBytes) {
    Start();
    const Message answer = Ask(4, TestUnitReady() + Pattern(100));
    EXPECT_EQ(answer.header.messageType, 2u);
    EXPECT_EQ(answer.header.bodyLength, 0u);
    const vcam::Request request = bus.LastRequests(camera, 1).at(0);
    EXPECT_EQ(request.inputLength, 165u);
    EXPECT_EQ(Bytes(request.block.begin() + 65, request.block.end()), Bytes(100));
}

TEST_F(SessionTest, RequestWithoutAWholeCommandFailsBeforeAnyCameraIsLookedUp) {
    Start();
    for (const std::uint32_t type : {2u, 3u, 4u}) {
        for (std::size_t length = 0; length < 16; ++length) {
            for (const std::uint32_t id : {0u, kFirstCamera, 12345u, 0xFFFFFFFFu}) {
                SCOPED_TRACE("type " + std::to_string(type) + ", length " + std::to_string(length) +
                             ", camera " + std::to_string(id));
                const Message answer = Ask(type, Pattern(length), id);
                ASSERT_EQ(answer.header.messageType, 3u);
                ASSERT_EQ(answer.header.bodyLength, 0u);
            }
        }
    }
    EXPECT_EQ(bus.Counters(camera).opens, bus.Counters(camera).closes) << "the camera was opened";
    EXPECT_EQ(RequestsSeen(), 0u);
}

TEST_F(SessionTest, MessagesOfUnknownTypesAreSwallowedWhole) {
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
    client->Write(bytes.first(5));
    port.DispatchUntil("the first piece", [&] { return client->PendingWrites() == 0; });
    port.DispatchQueued();
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
        EXPECT_EQ(log.text.find("R16 Q R16"), std::string::npos);
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

TEST_F(SessionTest, UnknownCameraEndsTheRunWithAPlainRuntimeErrorAndNoAnswer) {
    Start();
    for (const std::uint32_t id : {0u, 2u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(id);
        auto asking = ConnectAndAsk();
        const std::size_t before = asking->Messages().size();
        CallLog log;
        asking->Write(MessageBytes(3, 5, id, Read6(0, 1)));
        try {
            port.DispatchUntil("the error", [] { return false; });
            FAIL() << "no exception";
        } catch (const WindowsException& exception) {
            FAIL() << "a system error: " << exception.what();
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Bad camera in request.");
        }
        log.text.clear();
        port.DispatchQueued();
        EXPECT_EQ(log.text.find('R'), std::string::npos) << "the session reads on: " << log.text;
        EXPECT_EQ(asking->Messages().size(), before);
    }
}

TEST_F(SessionTest, CameraThatCannotBeOpenedEndsTheRun) {
    Start();
    bus.Unplug(camera);
    client->Write(MessageBytes(3, 1, kFirstCamera, Read6(0, 1)));
    try {
        port.DispatchUntil("the error", [] { return false; });
        FAIL() << "no exception";
    } catch (const WindowsException& exception) {
        EXPECT_EQ(std::string(exception.what()).find("Device::Open() failed.  GetLastError() = 0x"),
                  0u)
            << exception.what();
    }
    // The session closes what it has not opened; that ends at once.
    output.Clear();
    server.reset();
    EXPECT_EQ(Shutdowns(), 1u);
    ForgetPlugged();
}

TEST_F(SessionTest, SessionKeepsOneCameraOpenAndClosesItForTheNext) {
    const vcam::CameraId first = Plug();
    const vcam::CameraId second = Plug();
    StartServer();
    client = Connect();
    WaitForMessage(*client, 2);
    answers = 2;
    const auto open = [&](vcam::CameraId id) {
        const vcam::CameraCounters counters = bus.Counters(id);
        return counters.opens - counters.closes;
    };
    EXPECT_EQ(open(first), 0u);
    const std::uint64_t opensBefore = bus.Counters(first).opens;
    Ask(3, Read6(0, 1), 1);
    Ask(3, Read6(0, 1), 1);
    EXPECT_EQ(bus.Counters(first).opens, opensBefore + 1) << "opened once for two requests";
    EXPECT_EQ(open(first), 1u);
    EXPECT_EQ(open(second), 0u);
    Ask(3, Read6(0, 1), 2);
    EXPECT_EQ(open(first), 0u);
    EXPECT_EQ(open(second), 1u);
    // Messages without a transfer leave it open.
    Ask(3, {}, 1);
    EXPECT_EQ(open(second), 1u);
    Leave(client);
    EXPECT_EQ(open(second), 0u);
}

TEST_F(SessionTest, CameraStaysOpenUntilTheLastOfItsSessionsEnds) {
    Start();
    auto other = ConnectAndAsk();
    Ask(3, Read6(0, 1));
    other->Write(MessageBytes(3, 50, kFirstCamera, Read6(0, 1)));
    WaitForMessage(*other, 3);
    const vcam::CameraCounters counters = bus.Counters(camera);
    Leave(other);
    EXPECT_EQ(bus.Counters(camera).closes, counters.closes);
    Ask(3, Read6(0, 1));
    Leave(client);
    EXPECT_EQ(bus.Counters(camera).closes, counters.closes + 1);
}

TEST_F(SessionTest, ScsiStatusOtherThanZeroIsAFailedTransfer) {
    Start();
    for (const std::uint32_t type : {2u, 3u, 4u}) {
        vcam::Behaviour behaviour;
        behaviour.scsiStatus = 0x08;
        bus.SetBehaviour(camera, behaviour);
        EXPECT_EQ(Ask(type, TestUnitReady()).header.messageType, 3u);
        bus.SetBehaviour(camera, {});
        EXPECT_EQ(Ask(type, TestUnitReady()).header.messageType, 2u);
    }
    // What the camera itself says to a command that it does not know.
    Bytes unknown(16, std::byte{0xEE});
    EXPECT_EQ(Ask(3, unknown).header.messageType, 3u);
}

TEST_F(SessionTest, TransferThatEndsWithAnErrorFailsAndTheCameraStays) {
    Start();
    const auto other = ConnectAndAsk();
    bus.SetBehaviour(camera, CompletesWith(kStatusIoDeviceError));
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 3u);
    EXPECT_EQ(Ask(2, TestUnitReady()).header.messageType, 3u);
    bus.SetBehaviour(camera, CompletesWith(kStatusBufferOverflow));  // a warning is a failure too
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 3u);
    bus.SetBehaviour(camera, {});
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 2u);
    EXPECT_TRUE(server->FindDevice(kFirstCamera));
    EXPECT_EQ(output.CountError("No main communicator"), 0u);
}

TEST_F(SessionTest, AbortedTransferIsNotAnswered) {
    Start();
    bus.SetBehaviour(camera, CompletesWith(kStatusCancelled));
    client->Write(MessageBytes(3, 70, kFirstCamera, Read6(0, 1)));
    port.DispatchUntil("the abort", [&] {
        return output.CountOut("GetQueuedCompletionStatus returned FALSE: 995\n") == 1;
    });
    bus.SetBehaviour(camera, {});
    const Message answer = Ask(3, Read6(0, 1));
    EXPECT_EQ(answer.header.messageType, 2u);
    EXPECT_EQ(client->Messages().size(), answers);
}

TEST_F(SessionTest, TransferThatCannotStartFailsFirstAndThenTheCameraIsGone) {
    Start();
    auto asking = ConnectAndAsk();
    const std::size_t before = asking->Messages().size();
    bus.SetBehaviour(camera, FailsAtOnce(kStatusIoDeviceError));
    const auto device = server->FindDevice(kFirstCamera);
    client->Write(MessageBytes(3, 81, kFirstCamera, Read6(0, 1)));
    WaitForMessage(*client, 3);
    const std::vector<Message> messages = client->Messages();
    EXPECT_EQ(messages[1].header.messageType, 3u);
    EXPECT_EQ(messages[1].header.requestId, 81u);
    EXPECT_EQ(messages[2].header.messageType, 5u);
    EXPECT_EQ(messages[2].header.requestId, 0xFFFFFFFFu);
    EXPECT_EQ(messages[2].header.cameraId, kFirstCamera);
    EXPECT_EQ(messages[2].header.bodyLength, 0u);
    EXPECT_FALSE(server->FindDevice(kFirstCamera));
    EXPECT_TRUE(device->Removed());
    answers = 3;

    // Whoever still has it attached gets a failure without any device call.
    bus.SetBehaviour(camera, {});
    const std::uint64_t seen = RequestsSeen();
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 3u);
    EXPECT_EQ(RequestsSeen(), seen);
    RoundTrip(*asking);
    EXPECT_EQ(asking->Messages().size(), before + 1) << "a camera pipe was told";
}

TEST_F(SessionTest, TransferThatCannotStartWithoutAMainCommunicatorIsOneLine) {
    Start();
    auto asking = ConnectAndAsk();
    Leave(client);
    output.Clear();
    bus.SetBehaviour(camera, FailsAtOnce(kStatusIoDeviceError));
    const std::size_t before = asking->Messages().size();
    asking->Write(MessageBytes(4, 82, kFirstCamera, TestUnitReady()));
    WaitForMessage(*asking, before + 1);
    EXPECT_EQ(asking->Messages().back().header.messageType, 3u);
    EXPECT_EQ(output.Error(), "No main communicator found on device detach.\n");
    RoundTrip(*asking);
}

TEST_F(SessionTest, TransferThatFailsAtOnceWithAbortedIsAnsweredLikeAnyOther) {
    Start();
    bus.SetBehaviour(camera, FailsAtOnce(kStatusCancelled));
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 3u);
}

TEST_F(SessionTest, TransferThatFailsAtOnceWithAWarningIsAnsweredOnce) {
    Start();
    bus.SetBehaviour(camera, FailsAtOnce(kStatusBufferOverflow));
    client->Write(MessageBytes(3, 90, kFirstCamera, Read6(0, 1)));
    WaitForMessage(*client, 2);
    RoundTrip(*client);
    std::size_t count = 0;
    for (const Message& message : client->Messages())
        count += message.header.requestId == 90 ? 1u : 0u;
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(client->Messages()[1].header.messageType, 3u);
}

TEST_F(SessionTest, ShortAnswersOfTheDriverNeverMakeALengthBelowZero) {
    Start();
    for (const std::uint32_t returned : {0u, 1u, 55u, 56u, 64u, 65u, 66u, 65601u}) {
        SCOPED_TRACE(returned);
        vcam::Behaviour behaviour;
        behaviour.returnedBytes = returned;
        bus.SetBehaviour(camera, behaviour);
        const Message answer = Ask(3, Read6(0, 128));
        EXPECT_EQ(answer.header.messageType, 2u);
        EXPECT_EQ(answer.header.bodyLength, returned > 65 ? returned - 65 : 0);
        // The block's head only comes back as far as was returned, so the ids did not change.
        const Message other = Ask(4, TestUnitReady());
        EXPECT_EQ(other.header.messageType, 2u);
        EXPECT_EQ(other.header.bodyLength, 0u);
    }
    vcam::Behaviour behaviour;
    behaviour.maximumDataBytes = 0;
    bus.SetBehaviour(camera, behaviour);
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.bodyLength, 0u);
    behaviour.maximumDataBytes = 100;
    bus.SetBehaviour(camera, behaviour);
    const Message answer = Ask(3, Read6(0, 1));
    EXPECT_EQ(answer.body, Bytes(memory.begin(), memory.begin() + 100));
}

TEST_F(SessionTest, RemovedCameraFailsThroughTheSessionThatHasItWithoutADeviceCall) {
    Start();
    Ask(3, Read6(0, 1));
    const std::uint64_t seen = RequestsSeen();
    server->FindDevice(kFirstCamera)->SetRemoved();
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 3u);
    EXPECT_EQ(RequestsSeen(), seen);
    EXPECT_TRUE(server->FindDevice(kFirstCamera)) << "only a flag: the camera stays in the table";
}

TEST_F(SessionTest, TransfersOutstandingOnOneCameraAreAnsweredAsTheyEnd) {
    Start();
    constexpr std::uint32_t kCount = 40;
    bus.SetBehaviour(camera, Holds());
    Bytes all;
    for (std::uint32_t index = 0; index < kCount; ++index)
        all = std::move(all) + MessageBytes(3, 1000 + index, kFirstCamera,
                                            Read6(index, static_cast<std::uint8_t>(index % 3 + 1)));
    client->Write(all);
    // A client whose camera is busy is served all the same.
    port.DispatchUntil("the requests to be sent", [&] { return client->PendingWrites() == 0; });
    RoundTrip(*client);
    ++answers;
    ASSERT_EQ(bus.Counters(camera).pending, kCount);

    const std::vector<vcam::Request> held = bus.LastRequests(camera, kCount);
    std::vector<std::uint32_t> order;
    for (std::uint32_t index = 0; index < kCount; ++index)
        order.push_back(index * 17 % kCount);
    for (const std::uint32_t index : order)
        bus.Release(camera, held[index].sequenceNumber);
    WaitForMessage(*client, answers + kCount);
    const std::vector<Message> messages = client->Messages();
    for (std::uint32_t at = 0; at < kCount; ++at) {
        const std::uint32_t index = order[at];
        const Message& message = messages[answers + at];
        ASSERT_EQ(message.header.requestId, 1000 + index) << "answer " << at;
        EXPECT_EQ(message.header.messageType, 2u);
        EXPECT_EQ(message.header.cameraId, kFirstCamera);
        ASSERT_EQ(message.body, MemoryAt(index, index % 3 + 1)) << "answer " << at;
    }
    EXPECT_EQ(messages.size(), answers + kCount);
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

TEST_F(SessionTest, WhatFollowsABodyInPiecesIsSwallowedWithItsLastPiece) {
    Start();
    const Bytes body = Pattern(100);
    const Bytes message = MessageBytes(7, 60, 0, body);
    const std::span<const std::byte> bytes(message);
    client->Write(bytes.first(16 + 99));
    port.DispatchUntil("the first piece", [&] { return client->PendingWrites() == 0; });
    port.DispatchQueued();
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

TEST_F(SessionTest, ClientThatNeverReadsFillsOnlyItsOwnQueue) {
    Start();
    auto silent = Connect(PipeClient::Reading::kNever);
    constexpr std::uint32_t kCount = 100;
    for (std::uint32_t index = 0; index < kCount; ++index)
        silent->Write(MessageBytes(3, 500 + index, kFirstCamera, Read6(0, 128)));
    port.DispatchUntil("its requests",
                       [&] { return RequestsSeen() == kCount && silent->PendingWrites() == 0; });
    RoundTrip(*client);
    ++answers;
    EXPECT_EQ(Ask(3, Read6(3, 1)).body, MemoryAt(3, 1));
    // All of it is there once it reads, in order.
    silent->StartReading();
    WaitForMessage(*silent, 1 + kCount);
    const std::vector<Message> messages = silent->Messages();
    for (std::uint32_t index = 0; index < kCount; ++index) {
        ASSERT_EQ(messages[1 + index].header.requestId, 500 + index);
        ASSERT_EQ(messages[1 + index].body, MemoryAt(0, 128));
    }
}

TEST_F(SessionTest, ClientThatLeavesWhileIdleEndsItsSessionOnce) {
    Start();
    const auto other = ConnectAndAsk();
    output.Clear();
    Leave(client);
    EXPECT_EQ(output.CountOut("ServerClient shutdown.\n"), 1u);
    EXPECT_EQ(output.Error(), "");
    RoundTrip(*other);
}

// ---- What ends the run, because no client's end is behind it.

/// As Windows says it for a pipe; not one of the errors of a client that has hung up.
constexpr DWORD kOtherError = ERROR_NETNAME_DELETED;

/// The next packet of the service's own pipes ends with this error, whatever it was.
class FailingPacket {
public:
    explicit FailingPacket(DWORD code)
        : error(code),
          dequeue([this](HANDLE port, DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped,
                         DWORD wait) {
              const BOOL result = decltype(dequeue)::Original(port, bytes, key, overlapped, wait);
              // The client of the test has its packets on the same port, under the key 0.
              if (*key == 0 || error == 0)
                  return result;
              ::SetLastError(std::exchange(error, 0));
              return FALSE;
          }) {}

private:
    DWORD error;
    HookedImport<&__imp_GetQueuedCompletionStatus> dequeue;
};

class SessionErrorTest : public SessionTest {
protected:
    void SetUp() override {
        SessionTest::SetUp();
        Start();
        port.DispatchQueued();
        output.Clear();
    }

    /// Dispatches until a WindowsException comes, whose text starts so, and the client is still
    /// the main communicator: nothing was made of it but the exception.
    void ExpectError(const std::string& start) {
        try {
            port.DispatchUntil("the error", [] { return false; });
            FAIL() << "no exception";
        } catch (const WindowsException& exception) {
            EXPECT_EQ(std::string(exception.what()).find(start), 0u) << exception.what();
        }
        EXPECT_EQ(Shutdowns(), 0u);
        EXPECT_TRUE(server->GetMainCommunicator());
        EXPECT_EQ(output.Error(), "");
    }

    /// The client's header, and what it makes the service do.
    void SendHeaderOf(const Bytes& message) {
        client->Write(std::span(message).first(sizeof(MessageHeader)));
        port.DispatchUntil("the header", [&] { return client->PendingWrites() == 0; });
        port.DispatchQueued();
    }
};

TEST_F(SessionErrorTest, HeaderReadThatEndsWithAnotherErrorIsThrownWithoutAText) {
    const FailingPacket failing(kOtherError);
    client->Write(MessageBytes(7, 1, 0, {}));
    ExpectError("GetLastError() = 0x40 (");
}

TEST_F(SessionErrorTest, BodyReadThatEndsWithAnotherErrorIsThrown) {
    const Bytes message = MessageBytes(7, 1, 0, Pattern(100));
    SendHeaderOf(message);
    const FailingPacket failing(kOtherError);
    client->Write(std::span(message).subspan(sizeof(MessageHeader)));
    ExpectError("ReadBodyComplete failed.  GetLastError() = 0x40 (");
}

TEST_F(SessionErrorTest, WriteThatEndsWithAnotherErrorIsThrown) {
    const Bytes message = MessageBytes(kTransferIn, 1, kFirstCamera, Read6(0, 1));
    bus.SetBehaviour(camera, Holds());
    client->Write(message);
    port.DispatchUntil("the transfer", [&] { return bus.Counters(camera).pending == 1; });
    bus.ReleaseAll(camera);
    port.WaitForPackets(1);
    port.DispatchOne();  // writes the answer's header
    const FailingPacket failing(kOtherError);
    ExpectError("Write failed.  GetLastError() = 0x40 (");
}

TEST_F(SessionErrorTest, BodyReadThatFailsAtOnceIsThrownWithoutATextAlsoForABrokenPipe) {
    const Bytes message = MessageBytes(7, 1, 0, Pattern(100));
    const struct {
        DWORD size;  // of the read that fails: the first, or one that continues
        DWORD error;
        const char* text;
    } cases[] = {
        {100, kOtherError, "GetLastError() = 0x40 ("},
        {100, ERROR_BROKEN_PIPE, "GetLastError() = 0x6d ("},
        {140, kOtherError, "GetLastError() = 0x40 ("},
        {140, ERROR_BROKEN_PIPE, "GetLastError() = 0x6d ("},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE("read of " + std::to_string(one.size) + ", error " +
                     std::to_string(one.error));
        StopServer();
        StartServer();
        client = ConnectAndAsk();
        port.DispatchQueued();
        output.Clear();
        using Read = HookedImport<&__imp_ReadFile>;
        const Read read(
            [&](HANDLE file, void* to, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
                if (size != one.size)
                    return Read::Original(file, to, size, done, overlapped);
                ::SetLastError(one.error);
                return FALSE;
            });
        client->Write(std::span(message).first(sizeof(MessageHeader) + 40));
        ExpectError(one.text);
    }
}

TEST_F(SessionErrorTest, WriteThatFailsAtOnceIsThrownWithoutAText) {
    client->Write(MessageBytes(kTransferIn, 1, 0, {}));
    const HookedImport<&__imp_WriteFile> write([](HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) {
        ::SetLastError(kOtherError);
        return FALSE;
    });
    ExpectError("GetLastError() = 0x40 (");
}

TEST_F(SessionErrorTest, WriteThatFindsThePipeBrokenRemovesTheClient) {
    client->Write(MessageBytes(kTransferIn, 1, 0, {}));
    const HookedImport<&__imp_WriteFile> write([](HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) {
        ::SetLastError(ERROR_BROKEN_PIPE);
        return FALSE;
    });
    WaitForShutdowns(1);
    EXPECT_FALSE(server->GetMainCommunicator());
    EXPECT_EQ(output.Error(), "");
}

/// A request's calls and allocations, from its header's packet to the packet of the last write.
class RequestRoadTest : public SessionTest {
protected:
    void TearDown() override {
        calls = std::string();
        calls.shrink_to_fit();
        allocations = std::vector<std::size_t>();
        SessionTest::TearDown();
    }

    /// Starts, and replaces the client by one that reads nothing.
    void StartQuiet() {
        Start();
        Leave(client);
        client = Connect(PipeClient::Reading::kNever);
        port.DispatchQueued();
    }

    /// Serves one request of a client that does nothing meanwhile but have written it.
    void Serve(const Bytes& message, std::size_t packets) {
        client->Write(message);
        CallLog log;
        std::size_t taken = 0;
        guarded_heap::AllocationRecord record;
        while (taken < packets) {
            port.DispatchOne();
            taken = OutputCapture::Count(log.text, "Q");
        }
        allocations = record.Stop();
        calls = log.text;
    }

    /// Sizes of the allocations but those of the write queue's own nodes, which come every few
    /// dozen entries.
    std::vector<std::size_t> AllocationsButQueueNodes() const {
        std::vector<std::size_t> sizes = allocations;
        std::erase(sizes, 512);
        std::sort(sizes.begin(), sizes.end());
        return sizes;
    }

    std::string calls;
    std::vector<std::size_t> allocations;
};

TEST_F(RequestRoadTest, TransferInTakesTheAgreedCallsAndAllocations) {
    StartQuiet();
    const Bytes message = MessageBytes(3, 77, kFirstCamera, Read6(0, 1) + Pattern(5));
    Serve(message, 5);  // opens the camera
    for (int round = 0; round < 3; ++round) {
        Serve(message, 5);
        EXPECT_EQ(calls, "Q R21 Q D65601 R16 Q W16 Q W512 Q");
        allocations.erase(std::find(allocations.begin(), allocations.end(), 512));  // the data
        EXPECT_EQ(AllocationsButQueueNodes(),
                  (std::vector<std::size_t>{16, 21, sizeof(IoOperation), 65601}));
    }
}

TEST_F(RequestRoadTest, TransferOutTakesTheAgreedCallsAndAllocations) {
    StartQuiet();
    const Bytes message = MessageBytes(2, 78, kFirstCamera, Write6(0, Pattern(1024)));
    Serve(message, 4);
    for (int round = 0; round < 3; ++round) {
        Serve(message, 4);
        EXPECT_EQ(calls, "Q R1040 Q D1089 R16 Q W16 Q");
        EXPECT_EQ(AllocationsButQueueNodes(),
                  (std::vector<std::size_t>{16, sizeof(IoOperation), 1040, 1089}));
    }
}

TEST_F(RequestRoadTest, RefusedRequestTakesTheAgreedCallsAndAllocations) {
    StartQuiet();
    Serve(MessageBytes(4, 79, 0, {}), 2);
    for (int round = 0; round < 3; ++round) {
        Serve(MessageBytes(4, 79, 0, {}), 2);
        EXPECT_EQ(calls, "Q W16 R16 Q");
        EXPECT_EQ(AllocationsButQueueNodes(), (std::vector<std::size_t>{16}));
    }
}

}  // namespace
