// Messages as the service takes them: types, lengths, pieces, roles of the clients, and what a
// client may not do.

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {
namespace {

constexpr std::uint32_t kCamera = 1;  // the service's identifier of the first camera

/// The service in the foreground, with one camera.
class ProtocolTest : public SystemTest {
protected:
    PluggedCamera camera{bus};
    RunningService service;
};

/// A client that has been told of the one camera. By then the service waits for its first header.
RawClient ConnectAndTakeCamera() {
    RawClient client;
    EXPECT_EQ(client.ReceiveMessage(), Attached(kCamera));
    return client;
}

/// Returns when the service has handled everything that others have sent before: packets come in
/// order, and a round trip of this client is one more.
void Settle(RawClient& bystander) {
    EXPECT_TRUE(bystander.RoundTrip());
    EXPECT_TRUE(bystander.RoundTrip());  // for the packet that the handling of the first may queue
}

TEST_F(ProtocolTest, AnswerCarriesTheRequestsIdentifiers) {
    RawClient client = ConnectAndTakeCamera();
    for (const std::uint32_t requestId : {0u, 1u, 0x80000000u, 0xFFFFFFFFu, 1u}) {
        EXPECT_EQ(client.Ask(kTransferNoData, requestId, kCamera, TestUnitReady()),
                  Succeeded(requestId, kCamera));
    }
}

TEST_F(ProtocolTest, MessageOfUnknownTypeIsDiscardedWhole) {
    RawClient client = ConnectAndTakeCamera();
    const Bytes body = Pattern(70'000);
    for (const std::uint32_t type : {0u, 1u, 5u, 6u, 7u, 0x80000002u, 0xFFFFFFFFu}) {
        for (const std::size_t length : {0u, 3u, 16u, 70'000u})
            client.Send(MessageBytes(type, type, kCamera, std::span(body).first(length)));
    }
    EXPECT_EQ(client.Ask(kTransferNoData, 8, kCamera, TestUnitReady()), Succeeded(8, kCamera));
}

TEST_F(ProtocolTest, MessageOfUnknownTypeMayNameAnyCamera) {
    RawClient client = ConnectAndTakeCamera();
    for (const std::uint32_t cameraId : {0u, 2u, 0xFFFFFFFFu})
        client.Send(MessageBytes(7, 1, cameraId, Pattern(16)));
    EXPECT_EQ(client.Ask(kTransferNoData, 8, kCamera, TestUnitReady()), Succeeded(8, kCamera));
}

TEST_F(ProtocolTest, MessagesInOneWriteAreHandledInOrder) {
    RawClient client = ConnectAndTakeCamera();
    Bytes all;
    for (std::uint32_t id = 1; id <= 4; ++id) {
        const Bytes one = RequestBytes(kTransferNoData, id, kCamera, TestUnitReady());
        all.insert(all.end(), one.begin(), one.end());
    }
    client.Send(all);
    for (std::uint32_t id = 1; id <= 4; ++id)
        EXPECT_EQ(client.ReceiveMessage(), Succeeded(id, kCamera));
}

TEST_F(ProtocolTest, HeaderAndBodyMayBeTwoWrites) {
    RawClient client = ConnectAndTakeCamera();
    const Bytes request = RequestBytes(kTransferNoData, 5, kCamera, TestUnitReady());
    client.Send(std::span(request).first(sizeof(MessageHeader)));
    RawClient bystander = ConnectAndTakeCamera();
    Settle(bystander);
    EXPECT_EQ(client.Available(), 0u);
    client.Send(std::span(request).subspan(sizeof(MessageHeader)));
    EXPECT_EQ(client.ReceiveMessage(), Succeeded(5, kCamera));
}

TEST_F(ProtocolTest, SplitHeaderStallsOnlyItsOwnSession) {
    RawClient bystander = ConnectAndTakeCamera();
    const Bytes request = HeaderBytes({kTransferNoData, 1, kCamera, 0});
    std::vector<RawClient> stalled;
    for (const std::size_t first : {1u, 5u, 15u}) {
        RawClient& client = stalled.emplace_back(ConnectAndTakeCamera());
        client.Send(std::span(request).first(first));
        Settle(bystander);
        client.Send(std::span(request).subspan(first));
        service.Errors().WaitFor(
            "IoOperation::Complete expected status == kPending, instead status = 1",
            stalled.size());
    }
    // The service reads nothing that they send now.
    for (RawClient& client : stalled)
        client.Send(RequestBytes(kTransferNoData, 2, kCamera, TestUnitReady()));
    Settle(bystander);
    for (const RawClient& client : stalled)
        EXPECT_EQ(client.Available(), 0u);
    EXPECT_EQ(bystander.Ask(kTransferNoData, 3, kCamera, TestUnitReady()), Succeeded(3, kCamera));

    // Nor does the service notice when they leave, because no read is pending.
    stalled.clear();
    Settle(bystander);
    EXPECT_EQ(service.Output().Text().find("ServerClient shutdown."), std::string::npos);
    EXPECT_EQ(camera.Counters().requests, 1u);
}

TEST_F(ProtocolTest, RequestWithABodyBelow16BytesFailsWithoutTouchingACamera) {
    const vcam::CameraCounters before = camera.Counters();
    RawClient client = ConnectAndTakeCamera();
    const Bytes body = Pattern(15);
    for (const std::uint32_t type : {kTransferOut, kTransferIn, kTransferNoData}) {
        for (std::uint32_t length = 0; length < 16; ++length) {
            for (const std::uint32_t cameraId : {kCamera, 0u, 2u, 0x80000000u, 0xFFFFFFFFu}) {
                client.Send(MessageBytes(type, length, cameraId, std::span(body).first(length)));
                EXPECT_EQ(client.ReceiveMessage(), Failed(length, cameraId))
                    << "type " << type << ", length " << length << ", camera " << cameraId;
            }
        }
    }
    EXPECT_EQ(camera.Counters().opens, before.opens);
    EXPECT_EQ(camera.Counters().requests, 0u);
}

TEST_F(ProtocolTest, TransferInAsksForTheFullLengthWhateverItsBodySays) {
    const Bytes block = Pattern(65536);
    bus.WriteMemory(camera.Id(), 0, block);
    RawClient client = ConnectAndTakeCamera();
    for (const std::size_t extra : {0u, 1u, 84u, 100'000u}) {
        EXPECT_EQ(client.Ask(kTransferIn, 6, kCamera, Read6(0, 128), Pattern(extra)),
                  Succeeded(6, kCamera, block));
        EXPECT_EQ(camera.LastRequest().inputLength, 65601u);
    }
}

TEST_F(ProtocolTest, TransferOutWithoutDataHasAnEmptyDataPhase) {
    RawClient client = ConnectAndTakeCamera();
    EXPECT_EQ(client.Ask(kTransferOut, 9, kCamera, TestUnitReady()), Succeeded(9, kCamera));
    EXPECT_EQ(camera.LastRequest().inputLength, 65u);
}

TEST_F(ProtocolTest, BodyInPiecesArrivesWhole) {
    const Bytes data = Pattern(60'000);
    const Bytes request = RequestBytes(kTransferOut, 1, kCamera, Write6(0, 118), data);
    RawClient client = ConnectAndTakeCamera();
    RawClient bystander = ConnectAndTakeCamera();
    // Pieces that end inside the command and inside the data, each read by itself.
    std::size_t sent = 0;
    for (const std::size_t end : {std::size_t{16}, std::size_t{17}, std::size_t{31},
                                  std::size_t{33}, std::size_t{30'000}, request.size()}) {
        client.Send(std::span(request).subspan(sent, end - sent));
        sent = end;
        Settle(bystander);
    }
    EXPECT_EQ(client.ReceiveMessage(), Succeeded(1, kCamera));
    EXPECT_EQ(bus.ReadMemory(camera.Id(), 0, data.size()), data);
}

TEST_F(ProtocolTest, MessageGluedBehindABodyInPiecesIsSwallowed) {
    RawClient client = ConnectAndTakeCamera();
    RawClient bystander = ConnectAndTakeCamera();
    const Bytes request = RequestBytes(kTransferNoData, 1, kCamera, TestUnitReady());
    const Bytes first(request.begin(), request.begin() + 24);  // with half of the body
    client.Send(first);
    Settle(bystander);

    // The read for the rest has room for 16 bytes more, and takes them along.
    Bytes rest(request.begin() + 24, request.end());
    const Bytes glued = HeaderBytes({kTransferNoData, 2, kCamera, 0});
    rest.insert(rest.end(), glued.begin(), glued.end());
    client.Send(rest);
    EXPECT_EQ(client.ReceiveMessage(), Succeeded(1, kCamera));
    EXPECT_EQ(client.Ask(kTransferNoData, 3, kCamera, TestUnitReady()), Succeeded(3, kCamera));
}

TEST_F(ProtocolTest, ClientThatDiesInTheMiddleOfABodyIsForgotten) {
    RawClient bystander = ConnectAndTakeCamera();
    {
        RawClient client = ConnectAndTakeCamera();
        Bytes message = HeaderBytes({kTransferOut, 1, kCamera, 100'000});
        message.resize(message.size() + 1000);
        client.Send(message);
        Settle(bystander);
        client.Leave();
    }
    service.Output().WaitFor("ServerClient shutdown.");
    EXPECT_EQ(bystander.Ask(kTransferNoData, 2, kCamera, TestUnitReady()), Succeeded(2, kCamera));
    EXPECT_EQ(camera.Counters().requests, 1u);
}

TEST_F(ProtocolTest, ClientThatDiesInTheMiddleOfAHeaderLeavesAStalledSession) {
    RawClient bystander = ConnectAndTakeCamera();
    {
        RawClient client = ConnectAndTakeCamera();
        client.Send(Pattern(5));
        Settle(bystander);
        client.Leave();
    }
    // The rest of the header ends with an error, which the operation refuses like any other end.
    service.Errors().WaitFor("IoOperation::Error expected status == kPending, instead status = 1");
    EXPECT_EQ(bystander.Ask(kTransferNoData, 2, kCamera, TestUnitReady()), Succeeded(2, kCamera));
    EXPECT_EQ(service.Output().Text().find("ServerClient shutdown."), std::string::npos);
}

TEST_F(ProtocolTest, ClientThatLeavesWhileIdleIsRemoved) {
    RawClient bystander = ConnectAndTakeCamera();
    RawClient client = ConnectAndTakeCamera();
    EXPECT_EQ(client.Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
    client.Leave();
    service.Output().WaitFor("ServerClient shutdown.");
    EXPECT_EQ(bystander.Ask(kTransferNoData, 2, kCamera, TestUnitReady()), Succeeded(2, kCamera));
    EXPECT_EQ(service.ErrorLines(), std::vector<std::string>());
}

TEST_F(ProtocolTest, ClientThatLeavesBeforeTheServiceWaitsForItEndsTheRun) {
    RawClient bystander = ConnectAndTakeCamera();
    // Enough messages without an answer to keep the service reading until long after the client
    // has gone. It reads them all, and then wants to wait for the next.
    Bytes messages;
    for (int count = 0; count < 4000; ++count) {
        const Bytes one = HeaderBytes({7, 0, 0, 0});
        messages.insert(messages.end(), one.begin(), one.end());
    }
    RawClient rude = ConnectAndTakeCamera();
    rude.Send(messages);
    rude.Leave();
    EXPECT_EQ(bystander.ReceiveUntilClosed(), Bytes());
    EXPECT_EQ(service.WaitForEnd(), 0u);
    // Before it stand lines of the sessions that go with it, whose reads are pending.
    const std::vector<std::string> lines = service.ErrorLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(
        lines.back().starts_with("Exception: DoRead ReadFile failed.  GetLastError() = 0x6d ("))
        << service.Errors().Text();
}

/// A request for a camera that is not there.
struct BadRequest {
    std::uint32_t messageType;
    std::uint32_t cameraId;
};

class UnknownCamera : public ProtocolTest, public testing::WithParamInterface<BadRequest> {};

TEST_P(UnknownCamera, EndsTheRunWithoutAnAnswer) {
    RawClient client = ConnectAndTakeCamera();
    client.SendRequest(GetParam().messageType, 1, GetParam().cameraId, TestUnitReady());
    EXPECT_EQ(client.ReceiveUntilClosed(), Bytes());
    EXPECT_EQ(service.WaitForEnd(), 0u);
    EXPECT_EQ(service.ErrorLines(), std::vector<std::string>{"Exception: Bad camera in request."});
    EXPECT_EQ(camera.Counters().requests, 0u);
}

INSTANTIATE_TEST_SUITE_P(Requests, UnknownCamera,
                         testing::Values(BadRequest{kTransferOut, 0}, BadRequest{kTransferIn, 2},
                                         BadRequest{kTransferNoData, 0xFFFFFFFF},
                                         BadRequest{kTransferNoData, 0x80000001}),
                         [](const auto& request) {
                             return "Type" + std::to_string(request.param.messageType) + "Camera" +
                                    std::to_string(request.param.cameraId);
                         });

TEST_F(ProtocolTest, UnknownCameraEndsTheRunAlsoWhenAnotherOneIsAttached) {
    RawClient client = ConnectAndTakeCamera();
    EXPECT_EQ(client.Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
    client.SendRequest(kTransferNoData, 2, kCamera + 1, TestUnitReady());
    EXPECT_EQ(client.ReceiveUntilClosed(), Bytes());
    EXPECT_EQ(service.WaitForEnd(), 0u);
    EXPECT_EQ(service.ErrorLines(), std::vector<std::string>{"Exception: Bad camera in request."});
}

/// The service in the foreground, with two cameras.
class TwoCameras : public SystemTest {
protected:
    PluggedCamera one{bus};
    PluggedCamera two{bus};
    RunningService service;
};

TEST_F(TwoCameras, ClientGetsBothInAscendingOrderBeforeAnyAnswer) {
    for (int round = 0; round < 10; ++round) {
        RawClient client;
        client.SendRequest(kTransferNoData, 7, 2, TestUnitReady());  // without waiting for them
        EXPECT_EQ(client.ReceiveMessage(), Attached(1));
        EXPECT_EQ(client.ReceiveMessage(), Attached(2));
        EXPECT_EQ(client.ReceiveMessage(), Succeeded(7, 2));
        client.Leave();
    }
}

TEST_F(TwoCameras, OnlyTheFirstClientIsMainCommunicatorAndNoOtherIsPromoted) {
    OutputLines& output = service.Output();
    constexpr char kMainAttached[] = "attached main communicator pipe to desktop client: 0x";
    constexpr char kCameraPipeAttached[] = "attached camera pipe to desktop client: 0x";
    const auto connect = [] {
        RawClient client;
        EXPECT_EQ(client.ReceiveMessage(), Attached(1));
        EXPECT_EQ(client.ReceiveMessage(), Attached(2));
        return client;
    };
    RawClient first = connect();
    output.WaitFor(kMainAttached);
    RawClient second = connect();
    RawClient third = connect();
    EXPECT_EQ(output.WaitFor(kCameraPipeAttached, 2).size(), 2u);

    EXPECT_EQ(first.Ask(kTransferNoData, 1, 1, TestUnitReady()), Succeeded(1, 1));
    first.Leave();
    output.WaitFor("Removing main communicator.");

    // A camera pipe that leaves now says that there is no main communicator, and goes.
    EXPECT_EQ(third.Ask(kTransferNoData, 1, 1, TestUnitReady()), Succeeded(1, 1));
    third.Leave();
    output.WaitFor("ServerClient shutdown.", 2);
    EXPECT_EQ(service.Errors().WaitFor("No main communicator when RemoveClient() called.").size(),
              1u);

    // The next new client is main communicator. It alone is told that a camera is given up.
    RawClient next = connect();
    EXPECT_EQ(output.WaitFor(kMainAttached, 2).size(), 2u);
    one.Set(FailsAtOnce(kStatusIoDeviceError));
    EXPECT_EQ(second.Ask(kTransferNoData, 3, 1, TestUnitReady()), Failed(3, 1));
    EXPECT_EQ(next.ReceiveMessage(), Detached(1));
    EXPECT_TRUE(second.RoundTrip());
}

}  // namespace
}  // namespace system_test
