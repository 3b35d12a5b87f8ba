// Transfers of the client library, with the real service and virtual cameras.

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_system_test.h"
#include "orvik/client.h"
#include "support/bytes.h"
#include "support/camera_setup.h"
#include "support/client_results.h"
#include "watching_test.h"

namespace system_test {
namespace {

using namespace std::chrono_literals;
using client_test::Answer;
using client_test::KindOf;
using client_test::Signal;
using orvik::ErrorKind;

TEST_F(ClientTest, TransfersReachTheCameraAndComeBack) {
    Client client;
    client.TransferNoData(1, orvik::TestUnitReadyCdb());
    const orvik::Inquiry inquiry = orvik::DecodeInquiry(client.TransferIn(1, orvik::InquiryCdb()));
    EXPECT_EQ(inquiry.vendor, "Orvik");
    EXPECT_EQ(inquiry.product, "Virtual Camera");
    EXPECT_EQ(inquiry.revision, "F01");
    const orvik::Capacity capacity =
        orvik::DecodeCapacity(client.TransferIn(1, orvik::ReadCapacityCdb()));
    EXPECT_EQ(capacity.blockCount, 2048u);
    EXPECT_EQ(capacity.blockLength, vcam::kBlockSize);

    const Bytes block = Pattern(vcam::kBlockSize, 1);
    client.TransferOut(1, orvik::Write6Cdb(5, 1), block);
    EXPECT_EQ(bus.ReadMemory(camera.Id(), 5 * vcam::kBlockSize, block.size()), block);
    EXPECT_EQ(client.TransferIn(1, orvik::Read6Cdb(5, 1)), block);
    EXPECT_EQ(client.TransferIn(1, orvik::Read6Cdb(0, 128)),
              bus.ReadMemory(camera.Id(), 0, orvik::kTransferInLimit));
}

TEST_F(ClientTest, RequestsThatEndOutOfOrderGetTheirOwnAnswers) {
    Client client;
    for (std::uint8_t block = 0; block < 8; ++block)
        client.TransferOut(1, orvik::Write6Cdb(block, 1), Pattern(vcam::kBlockSize, block));
    const std::uint64_t before = camera.Counters().requests;
    camera.Set(Holds());
    std::array<Answer, 8> answers;
    for (unsigned block = 0; block < 8; ++block)
        client.StartTransferIn(1, orvik::Read6Cdb(block, 1), answers[block].Completion());
    bus.WaitForPending(camera.Id(), 8, kDeadline);
    for (unsigned block = 8; block-- > 0;)
        bus.Release(camera.Id(), before + 1 + block);
    for (unsigned block = 0; block < 8; ++block)
        EXPECT_EQ(answers[block].Data(), Pattern(vcam::kBlockSize, block)) << block;
}

TEST_F(ClientTest, CommandThatTheCameraRefusesIsRefused) {
    Client client;
    camera.Set(AnswersScsiStatus(2));
    EXPECT_EQ(KindOf([&] { client.TransferIn(1, orvik::InquiryCdb()); }), ErrorKind::kRefused);
    camera.Set({});
    EXPECT_EQ(client.TransferIn(1, orvik::InquiryCdb()).size(), 36u);
}

TEST_F(ClientTest, CameraUnpluggedDuringATransferIsGoneThenUnknown) {
    WaitUntilServiceHears(bus, 1);
    Client client(WaitingForReports());
    camera.Set(Holds());
    Answer answer;
    client.StartTransferIn(1, orvik::InquiryCdb(), answer.Completion());
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    camera.Unplug();
    EXPECT_EQ(KindOf([&] { answer.Data(); }), ErrorKind::kCameraGone);
    EXPECT_EQ(KindOf([&] { client.TransferIn(1, orvik::InquiryCdb()); }), ErrorKind::kNoSuchCamera);
    EXPECT_TRUE(client.Cameras().empty());
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(ClientTest, CameraThatTheServiceGivesUpIsGone) {
    Client client(WaitingForReports());
    camera.Set(FailsAtOnce(kStatusIoDeviceError));
    EXPECT_EQ(KindOf([&] { client.TransferIn(1, orvik::InquiryCdb()); }), ErrorKind::kCameraGone);
    EXPECT_EQ(KindOf([&] { client.TransferIn(1, orvik::InquiryCdb()); }), ErrorKind::kNoSuchCamera);
}

TEST_F(ClientTest, UnpluggedCameraIsRefusedToAClientThatIsNotTheMainCommunicator) {
    const Client main;
    Client client;
    camera.Set(Holds());
    Answer answer;
    client.StartTransferIn(1, orvik::InquiryCdb(), answer.Completion());
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    camera.Unplug();
    EXPECT_EQ(KindOf([&] { answer.Data(); }), ErrorKind::kRefused);
}

TEST_F(ClientTest, UnknownCameraIsRefusedBeforeItEndsTheService) {
    Client client;
    EXPECT_EQ(KindOf([&] { client.TransferIn(2, orvik::InquiryCdb()); }), ErrorKind::kNoSuchCamera);
    EXPECT_EQ(client.TransferIn(1, orvik::InquiryCdb()).size(), 36u);
}

void WaitForMoreThan(int value, const std::atomic<int>& counter) {
    const Deadline deadline;
    while (counter <= value) {
        ASSERT_FALSE(deadline.Over());
        std::this_thread::yield();
    }
}

TEST_F(ClientTest, CancelRacesWithTheAnswer) {
    constexpr int kRequests = 10'000;
    Client client;
    std::atomic<int> answered{0};
    std::atomic<int> cancelled{0};
    std::atomic<int> ended{0};
    Signal all;
    int accepted = 0;
    for (int request = 0; request < kRequests; ++request) {
        const int answeredBefore = answered;
        const orvik::RequestId id = client.StartTransferNoData(
            1, orvik::TestUnitReadyCdb(), [&](const orvik::TransferResult& result) {
                if (!result.error) {
                    ++answered;
                } else if (result.error->Kind() == ErrorKind::kCancelled) {
                    ++cancelled;
                }
                if (++ended == kRequests)
                    all.Set();
            });
        // About as long as an answer takes, which depends on the load of the machine: sometimes
        // shorter, sometimes longer, and every 64th time until the answer has arrived.
        if (request % 64 == 63)
            WaitForMoreThan(answeredBefore, answered);
        for (int spin = request % 64 * 150; spin > 0; --spin)
            ::YieldProcessor();
        accepted += client.Cancel(id) ? 1 : 0;
    }
    EXPECT_TRUE(all.Wait());
    EXPECT_EQ(cancelled, accepted);
    EXPECT_EQ(answered + cancelled, kRequests);
    EXPECT_GT(answered, 0);
    EXPECT_GT(cancelled, 0);
    EXPECT_EQ(client.TransferIn(1, orvik::InquiryCdb()).size(), 36u);
    RecordProperty("answered", answered);
    RecordProperty("cancelled", cancelled);
}

TEST_F(ClientTest, ManyThreadsShareOneClient) {
    constexpr unsigned kThreads = 8;
    constexpr unsigned kRounds = 40;
    // More than the pipe holds, so that writes of several threads are pending together.
    constexpr unsigned kBlocks = 128;
    Client client;
    std::atomic<unsigned> right{0};
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            for (unsigned round = 0; round < kRounds; ++round) {
                const unsigned first = number * kBlocks;
                const Bytes data = Pattern(kBlocks * vcam::kBlockSize, number * kRounds + round);
                client.TransferOut(1, orvik::Write6Cdb(first, kBlocks), data);
                Answer answer;
                client.StartTransferIn(1, orvik::Read6Cdb(first, kBlocks), answer.Completion());
                if (client.TransferIn(1, orvik::Read6Cdb(first, kBlocks)) == data &&
                    answer.Data() == data)
                    ++right;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(right, kThreads * kRounds);
}

// ClientDisconnect.WaitsForTheServiceAndNotForTheCamera shows that the destructor does not wait.
TEST_F(ClientTest, CallsToACameraThatNeverAnswersTimeOutAndTheServiceServesOn) {
    camera.Set(Holds());
    {
        Client client;
        EXPECT_EQ(KindOf([&] { client.TransferIn(1, orvik::InquiryCdb(), 100ms); }),
                  ErrorKind::kTimedOut);
        EXPECT_EQ(KindOf([&] {
                      client.TransferOut(1, orvik::Write6Cdb(0, 1), Bytes(vcam::kBlockSize), 100ms);
                  }),
                  ErrorKind::kTimedOut);
        EXPECT_EQ(KindOf([&] { client.TransferNoData(1, orvik::TestUnitReadyCdb(), 100ms); }),
                  ErrorKind::kTimedOut);
    }
    camera.Set({});
    EXPECT_EQ(Client().TransferIn(1, orvik::InquiryCdb()).size(), 36u);
}

}  // namespace
}  // namespace system_test
