// Transfers that end after their session.
// The guarded heap of these tests stops the program at any access to a freed block, the fixture
// looks for blocks and operations left behind, and the service must go on serving other clients.

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "guarded_heap.h"
#include "lifetime_fixture.h"

namespace {

std::string Name(TransferEnd end) {
    switch (end) {
        case TransferEnd::kSuccess:
            return "Succeed";
        case TransferEnd::kError:
            return "Fail";
        case TransferEnd::kAborted:
            return "Abort";
        default:
            return "Unplug";
    }
}

class LateTransferTest : public LifetimeTest,
                         public ::testing::WithParamInterface<std::tuple<TransferEnd, Role, End>> {
protected:
    void EndTransfers() {
        if (std::get<TransferEnd>(GetParam()) == TransferEnd::kUnplug) {
            bus.Unplug(camera);
            ForgetPlugged();
        } else {
            bus.ReleaseAll(camera);
        }
    }

    PipeClient& ConnectSubject() {
        main = ConnectQuietly();
        if (std::get<Role>(GetParam()) == Role::kMainCommunicator)
            return *main;
        pipe = ConnectQuietly();
        return *pipe;
    }

    void EndSession(PipeClient& client) {
        LifetimeTest::EndSession(client, std::get<End>(GetParam()));
    }

    void ExpectServingOthers() {
        EnsureServer();
        ExpectServing();
    }
};

/// Without clients that leave: ClientGoneBeforeATransferEndsIsRemovedByTheAnswer tests those.
class LateQueuedTransferTest : public LateTransferTest {};

using LateTransfer = std::tuple<TransferEnd, Role, End>;

std::string NameOfTransfer(const ::testing::TestParamInfo<LateTransfer>& test) {
    return Name(std::get<TransferEnd>(test.param)) + Name(std::get<Role>(test.param)) +
           Name(std::get<End>(test.param));
}

std::vector<LateTransfer> LateTransfers(bool clientsLeave) {
    std::vector<LateTransfer> all;
    for (const TransferEnd end : {TransferEnd::kSuccess, TransferEnd::kError, TransferEnd::kAborted,
                                  TransferEnd::kUnplug}) {
        all.emplace_back(end, Role::kMainCommunicator, End::kRegistryRemoves);
        for (const Role role : {Role::kMainCommunicator, Role::kCameraPipe}) {
            all.emplace_back(end, role, End::kServerDestroyed);
            if (clientsLeave)
                all.emplace_back(end, role, End::kClientLeaves);
        }
    }
    return all;
}

INSTANTIATE_TEST_SUITE_P(, LateTransferTest, ::testing::ValuesIn(LateTransfers(true)),
                         NameOfTransfer);
INSTANTIATE_TEST_SUITE_P(, LateQueuedTransferTest, ::testing::ValuesIn(LateTransfers(false)),
                         NameOfTransfer);

TEST_P(LateTransferTest, PendingInTheDriverWhenTheSessionEnds) {
    PipeClient& client = ConnectSubject();
    LeavePending(client, 5, HeldUntil(std::get<TransferEnd>(GetParam())));
    EndSession(client);
    EXPECT_EQ(Pending(), 5u) << "closing the handle cancels nothing";
    port.DispatchQueued();
    EndTransfers();
    port.DispatchQueued();
    ExpectServingOthers();
}

TEST_P(LateQueuedTransferTest, QueuedButNotTakenWhenTheSessionEnds) {
    PipeClient& client = ConnectSubject();
    LeavePending(client, 5, HeldUntil(std::get<TransferEnd>(GetParam())));
    EndTransfers();
    port.WaitForPackets(5);
    EndSession(client);
    port.DispatchQueued();
    ExpectServingOthers();
}

TEST_F(LifetimeTest, BodyOfARequestIsFreedWithItsSessionAndNotWithItsTransfer) {
    ORVIK_NEEDS_GUARDED_HEAP();
    constexpr std::size_t kBody = 5000;
    const std::size_t before = guarded_heap::LiveBlocks(kBody);
    main = ConnectQuietly();
    bus.SetBehaviour(camera, HeldUntil(TransferEnd::kSuccess));
    main->Write(MessageBytes(kTransferIn, 1, kFirstCamera, Read6(0, 1) + Pattern(kBody - 16)));
    port.DispatchUntil("the request", [&] { return Pending() == 1 && main->PendingWrites() == 0; });
    EXPECT_EQ(guarded_heap::LiveBlocks(kBody), before + 1);
    EndSession(*main, End::kRegistryRemoves);
    EXPECT_EQ(guarded_heap::LiveBlocks(kBody), before);
    EXPECT_EQ(Pending(), 1u);
    bus.ReleaseAll(camera);
    port.DispatchQueued();
    ExpectServing();
}

}  // namespace
