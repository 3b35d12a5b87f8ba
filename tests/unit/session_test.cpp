// One client's requests and their answers.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/device.h"
#include "session_fixture.h"

namespace {

constexpr std::size_t kBlock = vcam::kBlockSize;

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
    const std::uint64_t opens = bus.Counters(camera).opens;
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
    EXPECT_EQ(bus.Counters(camera).opens, opens) << "the camera was opened";
    EXPECT_EQ(RequestsSeen(), 0u);
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

}  // namespace
