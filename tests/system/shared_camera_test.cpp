// Cameras shared by clients and clients with several cameras: their handles, and many transfers at
// once.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "transfer_fixture.h"

namespace system_test {
namespace {

TEST_F(TransferTest, ClientsOfOneCameraShareItsHandle) {
    const vcam::CameraCounters before = camera.Counters();
    EXPECT_EQ(before.opens, before.closes);  // the look at start-up is over
    {
        RawClient one = Connect();
        RawClient two = Connect();
        EXPECT_EQ(camera.Counters().opens, before.opens);  // connecting opens nothing
        for (std::uint32_t id = 1; id <= 3; ++id) {
            EXPECT_EQ(one.Ask(kTransferNoData, id, kCamera, TestUnitReady()),
                      Succeeded(id, kCamera));
            EXPECT_EQ(two.Ask(kTransferNoData, id, kCamera, TestUnitReady()),
                      Succeeded(id, kCamera));
        }
        EXPECT_EQ(camera.Counters().opens, before.opens + 1);

        one.Leave();
        service.Output().WaitFor("ServerClient shutdown.");
        EXPECT_EQ(two.Ask(kTransferNoData, 9, kCamera, TestUnitReady()), Succeeded(9, kCamera));
        EXPECT_EQ(camera.Counters().closes, before.closes);
        two.Leave();
    }
    // The last one closes it.
    bus.WaitFor(camera.Id(), vcam::Counter::kCloses, before.closes + 1, kDeadline);
    RawClient three = Connect();
    EXPECT_EQ(three.Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
    EXPECT_EQ(camera.Counters().opens, before.opens + 2);
}

TEST_F(TransferTest, WhileACommandBlocksInTheDriverAllClientsWait) {
    using std::chrono::steady_clock;
    RawClient busy = Connect();
    RawClient other = Connect();
    camera.Set(BlocksTheCaller(std::chrono::seconds(2)));
    busy.SendRequest(kTransferNoData, 1, kCamera, TestUnitReady());
    // Round trips that touch no camera are quick before the command starts and after its end.
    steady_clock::duration longest{};
    for (const Deadline deadline; longest < std::chrono::seconds(1) && !deadline.Over();) {
        const auto start = steady_clock::now();
        ASSERT_TRUE(other.RoundTrip());
        longest = std::max(longest, steady_clock::now() - start);
    }
    EXPECT_GE(longest, std::chrono::seconds(1));
    EXPECT_EQ(busy.ReceiveMessage(), Succeeded(1, kCamera));
}

/// The service in the foreground, with two cameras. The enumeration decides which of
/// them gets which identifier; the product name shows it.
class TwoCameras : public SystemTest {
protected:
    TwoCameras() {
        RawClient client;
        EXPECT_EQ(client.ReceiveMessage(), Attached(1));
        EXPECT_EQ(client.ReceiveMessage(), Attached(2));
        const Bytes answer = client.Ask(kTransferIn, 1, 1, Inquiry()).body;
        if (answer.size() != 36 || answer[16] != std::byte{'A'})
            std::swap(first, second);
        client.Leave();
    }

    PluggedCamera a{bus, WithProduct("A")};
    PluggedCamera b{bus, WithProduct("B")};
    PluggedCamera* first = &a;   // the service's camera 1
    PluggedCamera* second = &b;  // the service's camera 2
    RunningService service;
};

TEST_F(TwoCameras, SessionHoldsOneCameraAtATime) {
    bus.WaitFor(first->Id(), vcam::Counter::kCloses, first->Counters().opens, kDeadline);
    const vcam::CameraCounters one = first->Counters();
    const vcam::CameraCounters two = second->Counters();
    RawClient client;
    client.ReceiveMessage();
    client.ReceiveMessage();
    EXPECT_EQ(client.Ask(kTransferNoData, 1, 1, TestUnitReady()), Succeeded(1, 1));
    EXPECT_EQ(client.Ask(kTransferNoData, 2, 1, TestUnitReady()), Succeeded(2, 1));
    EXPECT_EQ(first->Counters().opens, one.opens + 1);
    EXPECT_EQ(first->Counters().closes, one.closes);

    EXPECT_EQ(client.Ask(kTransferNoData, 3, 2, TestUnitReady()), Succeeded(3, 2));
    EXPECT_EQ(first->Counters().closes, one.closes + 1);
    EXPECT_EQ(second->Counters().opens, two.opens + 1);

    EXPECT_EQ(client.Ask(kTransferNoData, 4, 1, TestUnitReady()), Succeeded(4, 1));
    EXPECT_EQ(first->Counters().opens, one.opens + 2);
    EXPECT_EQ(second->Counters().closes, two.closes + 1);
    EXPECT_EQ(second->Counters().requests, two.requests + 1);
}

TEST_F(TwoCameras, TransferOfACameraThatTheSessionHasLeftIsStillAnswered) {
    RawClient client;
    client.ReceiveMessage();
    client.ReceiveMessage();
    first->Set(Holds());
    client.SendRequest(kTransferIn, 1, 1, Inquiry());
    bus.WaitForPending(first->Id(), 1, kDeadline);
    EXPECT_EQ(client.Ask(kTransferNoData, 2, 2, TestUnitReady()), Succeeded(2, 2));
    bus.ReleaseAll(first->Id());
    const Message answer = client.ReceiveMessage();
    EXPECT_EQ(answer, Succeeded(1, 1, answer.body));
    EXPECT_EQ(answer.body.size(), 36u);
}

// --- many at once ---

TEST_F(TransferTest, ManyTransfersOfOneSessionEndOutOfOrderEachWithItsOwnData) {
    constexpr std::uint32_t kTransfers = 60;
    constexpr std::uint32_t kBlocksEach = 20;
    const Bytes memory = Pattern(kTransfers * kBlocksEach * vcam::kBlockSize);
    bus.WriteMemory(camera.Id(), 0, memory);
    RawClient client = Connect();
    camera.Set(Holds());

    // Each reads its own blocks, or for every third one only tests the unit.
    std::vector<Message> answers;  // by request
    for (std::uint32_t i = 0; i < kTransfers; ++i) {
        const std::uint32_t id = 1000 + i;
        if (i % 3 == 2) {
            client.SendRequest(kTransferNoData, id, kCamera, TestUnitReady());
            answers.push_back(Succeeded(id, kCamera));
            continue;
        }
        client.SendRequest(kTransferIn, id, kCamera, Read6(i * kBlocksEach, kBlocksEach));
        const auto begin = memory.begin() + i * kBlocksEach * vcam::kBlockSize;
        answers.push_back(
            Succeeded(id, kCamera, Bytes(begin, begin + kBlocksEach * vcam::kBlockSize)));
    }
    bus.WaitForPending(camera.Id(), kTransfers, kDeadline);

    std::vector<std::uint32_t> order(kTransfers);
    std::iota(order.begin(), order.end(), 0u);
    std::shuffle(order.begin(), order.end(), std::mt19937(20));
    for (const std::uint32_t index : order)
        bus.Release(camera.Id(), index + 1);  // sequence numbers count from 1
    for (const std::uint32_t index : order)
        ASSERT_EQ(client.ReceiveMessage(), answers[index]);
    EXPECT_TRUE(client.RoundTrip());
}

TEST_F(TransferTest, TransfersOfManySessionsReachTheirOwnSession) {
    constexpr std::uint32_t kSessions = 30;
    constexpr std::uint32_t kTransfersEach = 5;
    bus.WriteMemory(camera.Id(), 0, Pattern(kSessions * kTransfersEach * vcam::kBlockSize));
    camera.Set(Holds());
    std::vector<RawClient> clients;
    for (std::uint32_t session = 0; session < kSessions; ++session) {
        clients.push_back(Connect());
        for (std::uint32_t i = 0; i < kTransfersEach; ++i)
            clients.back().SendRequest(kTransferIn, i, kCamera,
                                       Read6(session * kTransfersEach + i, 1));
    }
    bus.WaitForPending(camera.Id(), kSessions * kTransfersEach, kDeadline);
    bus.ReleaseAll(camera.Id());
    for (std::uint32_t session = 0; session < kSessions; ++session) {
        for (std::uint32_t i = 0; i < kTransfersEach; ++i) {
            const std::uint64_t offset = (session * kTransfersEach + i) * vcam::kBlockSize;
            ASSERT_EQ(clients[session].ReceiveMessage(),
                      Succeeded(i, kCamera, bus.ReadMemory(camera.Id(), offset, 512)));
        }
    }
}

TEST_F(TransferTest, ClientThatDiesWithTransfersPendingLeavesTheServiceWhole) {
    RawClient bystander = Connect();
    RawClient client = Connect();
    camera.Set(Holds());
    for (std::uint32_t id = 1; id <= 20; ++id)
        client.SendRequest(kTransferIn, id, kCamera, Inquiry());
    bus.WaitForPending(camera.Id(), 20, kDeadline);
    EXPECT_TRUE(bystander.RoundTrip());  // so the service waits for the client's next message
    client.Leave();
    service.Output().WaitFor("ServerClient shutdown.");

    // The packets come after the end of their session.
    camera.Set({});
    bus.ReleaseAll(camera.Id());
    EXPECT_EQ(bystander.Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
    EXPECT_TRUE(bystander.RoundTrip());
    EXPECT_EQ(service.ErrorLines(), std::vector<std::string>());
}

}  // namespace
}  // namespace system_test
