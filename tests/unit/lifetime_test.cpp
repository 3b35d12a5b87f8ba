// Cameras that leave, and the server's end, with operations in progress.
// The guarded heap of these tests stops the program at any access to a freed block, the fixture
// looks for blocks and operations left behind, and the service must go on serving other clients.

#include <memory>
#include <span>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "lifetime_fixture.h"

namespace {

TEST_F(LifetimeTest, CameraThatLeavesWithTransfersPendingAndNoSession) {
    main = ConnectQuietly();
    LeavePending(*main, 4, HeldUntil(TransferEnd::kSuccess));
    InterfaceEvent(DBT_DEVICEREMOVECOMPLETE, bus.InterfacePath(camera));
    EXPECT_FALSE(server->FindDevice(kFirstCamera));
    main->Close();
    WaitForShutdowns(1);  // and with it the last share of the Device
    EXPECT_EQ(Pending(), 4u);
    bus.ReleaseAll(camera);
    port.DispatchQueued();
    ExpectServing();
}

TEST_F(LifetimeTest, CameraThatLeavesStaysOpenForTheSessionThatHasIt) {
    main = ConnectQuietly(Reading::kAtOnce);
    pipe = ConnectQuietly(Reading::kAtOnce);
    pipe->Write(MessageBytes(3, 1, kFirstCamera, Read6(0, 1)));
    WaitForMessage(*pipe, 2);
    InterfaceEvent(DBT_DEVICEREMOVECOMPLETE, bus.InterfacePath(camera));
    EXPECT_EQ(WaitForMessage(*main, 2).header.messageType, 5u);
    pipe->Write(MessageBytes(3, 2, kFirstCamera, Read6(0, 1)));
    EXPECT_EQ(WaitForMessage(*pipe, 3).header.messageType, 2u) << "it is still there";
    pipe->Write(MessageBytes(3, 3, kFirstCamera + 1, Read6(0, 1)));
    EXPECT_THROW(port.DispatchUntil("the error", [] { return false; }), std::runtime_error);
}

TEST_F(LifetimeTest, CameraSwitchedWithTransfersPendingOnTheFirst) {
    const vcam::CameraId second = Plug();
    InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(second));
    main = Connect(Reading::kAtOnce);
    WaitForMessage(*main, 2);
    LeavePending(*main, 3, HeldUntil(TransferEnd::kSuccess));
    main->Write(MessageBytes(3, 400, 2, Read6(0, 1)));
    EXPECT_EQ(WaitForMessage(*main, 3).header.requestId, 400u);
    EXPECT_EQ(Pending(), 3u);
    bus.ReleaseAll(camera);
    WaitForMessage(*main, 6);
    for (std::size_t index = 3; index < 6; ++index) {
        EXPECT_EQ(main->Messages()[index].header.requestId, 300 + index - 3);
        EXPECT_EQ(main->Messages()[index].header.messageType, 2u);
    }
}

TEST_F(LifetimeTest, ServerDestroyedWithEverythingPending) {
    main = ConnectQuietly();
    pipe = ConnectQuietly();
    auto stalled = ConnectQuietly();
    const Bytes message = MessageBytes(3, 1, 0, {});
    WriteAndDispatch(*stalled, std::span(message).first(3));
    FillWriteQueue(*pipe);
    LeavePending(*main, 6, HeldUntil(TransferEnd::kSuccess));
    auto half = ConnectQuietly();
    half->Write(MessageBytes(2, 1, kFirstCamera, Pattern(100)));
    // Queued and not taken: device events, half a request, and one client in the queue.
    PostInterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(Plug()));
    PostInterfaceEvent(DBT_DEVICEREMOVECOMPLETE, bus.InterfacePath(camera));
    PipeClient waiting(port, Reading::kNever);
    server.reset();
    EXPECT_EQ(Shutdowns(), 4u);
    for (int count = 0; count < 3; ++count)
        port.DispatchQueued();
    bus.ReleaseAll(camera);
    for (PipeClient* const client : {main.get(), pipe.get(), stalled.get(), half.get(), &waiting})
        client->Close();
    port.Drain();
    StartServer();
    ExpectServing();
}

TEST_F(LifetimeTest, ServerDestroyedAfterTheDispatcherHasStopped) {
    main = ConnectQuietly();
    LeavePending(*main, 2, HeldUntil(TransferEnd::kError));
    server->PostQuit();
    PostInterfaceEvent(DBT_DEVICEREMOVECOMPLETE, bus.InterfacePath(camera));
    EXPECT_THROW(port.DispatchUntil("the quit operation", [] { return false; }), std::logic_error);
    server.reset();
    bus.ReleaseAll(camera);
    port.WaitForPackets(3);
    main.reset();
    port.Drain();
    StartServer();
    ExpectServing();
}

TEST_F(LifetimeTest, ManySessionsEndInEveryStateAtOnce) {
    std::vector<std::unique_ptr<PipeClient>> clients;
    for (int index = 0; index < 60; ++index) {
        clients.push_back(ConnectQuietly());
        PipeClient& client = *clients.back();
        switch (index % 4) {
            case 1:
                client.Write(
                    std::span<const std::byte>(MessageBytes(3, 1, kFirstCamera, Pattern(1000)))
                        .first(600));
                break;
            case 2:
                LeavePending(client, 2, HeldUntil(TransferEnd::kSuccess));
                break;
            case 3:
                client.Write(MessageBytes(3, 1, kFirstCamera, Read6(0, 128)));
                client.Write(MessageBytes(3, 2, kFirstCamera, Read6(0, 128)));
                break;
            default:
                break;
        }
        port.DispatchUntil("its writes", [&] { return client.PendingWrites() == 0; });
        port.DispatchQueued();
    }
    RoundTrip(*(clients[0] = ConnectQuietly(Reading::kAtOnce)));
    for (auto& client : clients)
        client.reset();
    bus.ReleaseAll(camera);
    WaitForShutdowns(61);
    ExpectServing();
}

TEST_F(LifetimeTest, WarningFromTheDriverLeavesNoOperationBehind) {
    // Whether the system queues a packet for it or not; each camera is given up by it.
    main = ConnectQuietly(Reading::kAtOnce);
    for (std::uint32_t id = 1; id <= 3; ++id) {
        bus.SetBehaviour(camera, FailsAtOnce(kStatusBufferOverflow));
        main->Write(MessageBytes(3, id, id, Read6(0, 1)));
        port.DispatchUntil("the detach", [&] { return !server->FindDevice(id); });
        bus.SetBehaviour(camera, {});
        InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(camera));
        RoundTrip(*main);
    }
}

}  // namespace
