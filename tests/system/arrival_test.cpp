// Cameras that come and go while the service runs: which client gets which messages, in which
// order.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "watching_test.h"

namespace system_test {
namespace {

using ArrivalTest = WatchingTest;
ORVIK_IN_BOTH_MODES(ArrivalTest);

/// Receives `count` messages that may come in any order.
std::vector<Message> ReceiveSorted(RawClient& client, std::size_t count) {
    std::vector<Message> messages;
    while (messages.size() < count)
        messages.push_back(client.ReceiveMessage());
    std::sort(messages.begin(), messages.end(), [](const Message& a, const Message& b) {
        return a.header.messageType != b.header.messageType
                   ? a.header.messageType < b.header.messageType
                   : a.header.requestId < b.header.requestId;
    });
    return messages;
}

TEST_P(ArrivalTest, OnlyTheMainCommunicatorGetsMessagesAboutACameraThatComesAndGoes) {
    RawClient main;
    RawClient pipe;
    EXPECT_TRUE(main.RoundTrip());
    EXPECT_TRUE(pipe.RoundTrip());
    PluggedCamera camera(bus);
    const std::uint32_t id = nextId;
    ExpectAttached(main);
    // A camera pipe gets no message, but may use the camera.
    EXPECT_TRUE(pipe.RoundTrip());
    EXPECT_EQ(pipe.Ask(kTransferNoData, 1, id, TestUnitReady()), Succeeded(1, id));
    camera.Unplug();
    EXPECT_EQ(main.ReceiveMessage(), Detached(id));
    EXPECT_TRUE(main.RoundTrip());
    EXPECT_TRUE(pipe.RoundTrip());
}

TEST_P(ArrivalTest, OnlyCdRomsWithTheRightIdentityAreTaken) {
    RawClient main;
    PluggedCamera disk(bus, WithClass(vcam::kDiskInterface));
    PluggedCamera tape(bus, WithClass(kTapeInterface));
    PluggedCamera stranger(bus, WithVendor("orvik"));
    PluggedCamera camera(bus);
    const std::uint32_t id = nextId;
    ExpectAttached(main);
    EXPECT_EQ(main.Ask(kTransferNoData, 1, id, TestUnitReady()), Succeeded(1, id));
    EXPECT_EQ(camera.Counters().requests, 1u);
    // No message comes for the others.
    disk.Unplug();
    tape.Unplug();
    stranger.Unplug();
    camera.Unplug();
    EXPECT_EQ(main.ReceiveMessage(), Detached(id));
    EXPECT_TRUE(main.RoundTrip());
}

TEST_P(ArrivalTest, CameraThatComesBackGetsANewIdentifierInWhateverCaseItsPathIs) {
    RawClient main;
    for (const wchar_t* const instance : {L"same", L"same", L"SAME", L"Same"}) {
        vcam::PlugOptions options;
        options.instanceId = instance;
        PluggedCamera camera(bus, options);
        const std::uint32_t id = nextId;
        ExpectAttached(main);
        EXPECT_EQ(main.Ask(kTransferNoData, 1, id, TestUnitReady()), Succeeded(1, id));
        camera.Unplug();
        EXPECT_EQ(main.ReceiveMessage(), Detached(id));
    }
}

TEST_P(ArrivalTest, TenCamerasAtOnceAreEachAnnouncedOnceComingAndGoing) {
    constexpr std::uint32_t kCameras = 10;
    RawClient main;
    const std::uint32_t first = nextId;
    std::vector<std::unique_ptr<PluggedCamera>> cameras;
    for (std::uint32_t count = 0; count < kCameras; ++count)
        cameras.push_back(
            std::make_unique<PluggedCamera>(bus, WithProduct("Number " + std::to_string(count))));
    ExpectAttached(main, kCameras);
    // In the order in which they came: each identifier is that of the camera plugged then.
    for (std::uint32_t count = 0; count < kCameras; ++count) {
        const std::uint32_t id = first + count;
        EXPECT_EQ(main.Ask(kTransferNoData, count, id, TestUnitReady()), Succeeded(count, id));
        EXPECT_EQ(cameras[count]->Counters().requests, 1u);
    }
    // A client that comes now is told of all that are there.
    RawClient pipe;
    for (std::uint32_t count = 0; count < kCameras; ++count)
        EXPECT_EQ(pipe.ReceiveMessage(), Attached(first + count));
    for (std::uint32_t count = kCameras; count-- != 0; cameras.pop_back())
        cameras.back()->Unplug();
    for (std::uint32_t count = kCameras; count-- != 0;)
        EXPECT_EQ(main.ReceiveMessage(), Detached(first + count));
    EXPECT_TRUE(main.RoundTrip());
    EXPECT_TRUE(pipe.RoundTrip());
}

TEST_P(ArrivalTest, ClientThatConnectsAfterTheMainCommunicatorHasLeftGetsTheNextMessages) {
    PluggedCamera anchor(bus);
    RawClient first;
    ExpectAttached(first);
    RawClient pipe;
    EXPECT_EQ(pipe.ReceiveMessage(), Attached(nextId - 1));
    Leave(first, nextId - 1);
    RawClient second;
    EXPECT_EQ(second.ReceiveMessage(), Attached(nextId - 1));
    PluggedCamera camera(bus);
    ExpectAttached(second);
    EXPECT_TRUE(pipe.RoundTrip()) << "a camera pipe does not become the main communicator";
}

TEST_P(ArrivalTest, UnplugWithTransfersPendingAnswersEachAndTellsOnce) {
    constexpr std::uint32_t kTransfers = 5;
    RawClient main;
    PluggedCamera camera(bus);
    const std::uint32_t id = nextId;
    ExpectAttached(main);
    PluggedCamera other(bus);
    ExpectAttached(main);
    RawClient pipe;
    EXPECT_EQ(pipe.ReceiveMessage(), Attached(id));
    EXPECT_EQ(pipe.ReceiveMessage(), Attached(id + 1));

    camera.Set(Holds());
    for (std::uint32_t request = 0; request < kTransfers; ++request) {
        main.SendRequest(kTransferIn, request, id, Read6(request, 1));
        pipe.SendRequest(kTransferIn, request, id, Read6(request, 1));
    }
    bus.WaitForPending(camera.Id(), 2 * kTransfers, kDeadline);
    camera.Unplug();
    const std::vector<Message> told = ReceiveSorted(main, kTransfers + 1);
    const std::vector<Message> answered = ReceiveSorted(pipe, kTransfers);
    for (std::uint32_t request = 0; request < kTransfers; ++request) {
        EXPECT_EQ(told[request], Failed(request, id));
        EXPECT_EQ(answered[request], Failed(request, id));
    }
    EXPECT_EQ(told[kTransfers], Detached(id));

    // The main communicator still has it open: it is refused, and no further message comes.
    EXPECT_EQ(main.Ask(kTransferNoData, 9, id, TestUnitReady()), Failed(9, id));
    EXPECT_TRUE(main.RoundTrip());
    // The other camera is not touched by any of this.
    EXPECT_EQ(main.Ask(kTransferNoData, 10, id + 1, TestUnitReady()), Succeeded(10, id + 1));
    EXPECT_EQ(pipe.Ask(kTransferNoData, 10, id + 1, TestUnitReady()), Succeeded(10, id + 1));
}

// A camera pipe gets no message when its camera goes. When it uses the camera once more, the
// service cannot start the transfer, gives the camera up, and sends the main communicator its
// message again.
TEST_P(ArrivalTest,
       RequestOfACameraPipeToAnUnpluggedCameraFailsAndIsReportedToTheMainCommunicatorAgain) {
    RawClient main;
    PluggedCamera camera(bus);
    const std::uint32_t id = nextId;
    ExpectAttached(main);
    RawClient pipe;
    EXPECT_EQ(pipe.ReceiveMessage(), Attached(id));
    EXPECT_EQ(pipe.Ask(kTransferNoData, 1, id, TestUnitReady()), Succeeded(1, id));
    camera.Unplug();
    EXPECT_EQ(main.ReceiveMessage(), Detached(id));
    EXPECT_EQ(pipe.Ask(kTransferNoData, 2, id, TestUnitReady()), Failed(2, id));
    EXPECT_EQ(main.ReceiveMessage(), Detached(id));
    EXPECT_EQ(pipe.Ask(kTransferNoData, 3, id, TestUnitReady()), Failed(3, id));
    EXPECT_TRUE(main.RoundTrip());
}

}  // namespace
}  // namespace system_test
