// Clients that hang up: their session ends inside one of its own handlers, once.
// The guarded heap of these tests stops the program at any access to a freed block, the fixture
// looks for blocks and operations left behind, and the service must go on serving other clients.

#include <memory>
#include <span>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "call_log.h"
#include "connect_gap.h"
#include "device/device.h"
#include "lifetime_fixture.h"

namespace {

constexpr char kProblem[] =
    "PROBLEM!!! ServerClient destructor with active overlapped structure.\n";

TEST_F(LifetimeTest, ClientGoneWithAHeaderReadPendingEndsTheSessionOnce) {
    main = ConnectQuietly();
    pipe = ConnectQuietly();
    main->Close();
    pipe->Close();
    WaitForShutdowns(2);
    port.DispatchQueued();
    EXPECT_EQ(Shutdowns(), 2u);
    EXPECT_EQ(output.CountError(kProblem), 0u);
    ExpectServing();
}

TEST_F(LifetimeTest, ClientGoneInTheMiddleOfABodyEndsTheSessionOnce) {
    main = ConnectQuietly();
    const Bytes message = MessageBytes(2, 1, kFirstCamera, Write6(0, Pattern(512)));
    WriteAndDispatch(*main, std::span(message).first(200));
    main->Close();
    WaitForShutdowns(1);
    ExpectServing();
    EXPECT_EQ(bus.Counters(camera).requests, 0u);
}

TEST_F(LifetimeTest, ClientGoneWithReadAndWritePendingEndsTheSessionOnce) {
    main = ConnectQuietly();
    FillWriteQueue(*main);
    const std::size_t operations = port.Operations();
    main->Close();
    port.WaitForPackets(2);
    port.DispatchQueued();
    EXPECT_EQ(Shutdowns(), 1u);
    EXPECT_LT(port.Operations(), operations - 1) << "both packets freed their operations";
    ExpectServing();
}

TEST_F(LifetimeTest, FailedWriteEndsASessionThatIsStalled) {
    main = ConnectQuietly();
    FillWriteQueue(*main);
    const Bytes message = MessageBytes(3, 1, 0, {});
    for (const auto piece : {std::span(message).first(5), std::span(message).subspan(5)}) {
        WriteAndDispatch(*main, piece);
    }
    EXPECT_EQ(output.CountError("IoOperation::Complete expected"), 1u);
    main->Close();
    WaitForShutdowns(1);  // nothing reads any more: this came from the write's packet
    ExpectServing();
}

TEST_F(LifetimeTest, StalledSessionIsNotRemovedByItsClientsEnd) {
    main = ConnectQuietly();
    const Bytes message = MessageBytes(3, 1, 0, {});
    WriteAndDispatch(*main, std::span(message).first(5));
    main->Close();
    port.DispatchQueued();
    ExpectServing();
    EXPECT_EQ(Shutdowns(), 1u) << "only that of the other client";
    EXPECT_EQ(output.CountError("IoOperation::Error expected status == kPending, instead status = "
                                "1\n"),
              1u)
        << output.Error();
    EXPECT_TRUE(server->GetMainCommunicator());
}

TEST_F(LifetimeTest, NextWriteOfAQueueFindsTheClientGone) {
    main = ConnectQuietly();
    // An answer whose header fits into the pipe; its data is queued behind it.
    bus.SetBehaviour(camera, Holds());
    main->Write(MessageBytes(3, 1, kFirstCamera, Read6(0, 1)));
    port.DispatchUntil("the transfer", [&] { return Pending() == 1; });
    port.DispatchQueued();
    bus.ReleaseAll(camera);
    port.WaitForPackets(1);
    port.DispatchOne();  // OnTransferComplete: header written, data queued
    port.WaitForPackets(1);
    main->Close();
    port.WaitForPackets(2);
    EXPECT_EQ(Shutdowns(), 0u);
    port.DispatchOne();  // WriteComplete: no client is left for the data
    EXPECT_EQ(Shutdowns(), 1u);
    port.DispatchQueued();
    EXPECT_EQ(Shutdowns(), 1u);
    ExpectServing();
}

TEST_F(LifetimeTest, ClientGoneBeforeATransferEndsIsRemovedByTheAnswer) {
    for (const bool isMain : {true, false}) {
        for (const bool succeeds : {true, false}) {
            SCOPED_TRACE(std::string(isMain ? "main" : "pipe") + (succeeds ? " ok" : " failed"));
            if (!isMain && !main)
                main = ConnectQuietly(Reading::kAtOnce);
            auto client = ConnectQuietly();
            const std::size_t before = Shutdowns();
            LeavePending(*client, 3,
                         HeldUntil(succeeds ? TransferEnd::kSuccess : TransferEnd::kError));
            bus.ReleaseAll(camera);
            port.WaitForPackets(3);
            client->Close();
            port.WaitForPackets(4);
            EXPECT_EQ(Shutdowns(), before);
            port.DispatchOne();  // OnTransferComplete writes, and the session is gone
            EXPECT_EQ(Shutdowns(), before + 1);
            port.DispatchQueued();  // the other two, and the read
            EXPECT_EQ(Shutdowns(), before + 1);
            ExpectServing();
        }
    }
}

TEST_F(LifetimeTest, ClientGoneBeforeItsRequestIsRefusedIsNotReadAgain) {
    for (const bool isMain : {true, false}) {
        SCOPED_TRACE(isMain);
        if (!isMain)
            main = ConnectQuietly(Reading::kAtOnce);
        auto client = ConnectQuietly();
        const std::size_t before = Shutdowns();
        WriteAndQueue(*client, MessageBytes(4, 1, 0, {}));
        client->Close();
        CallLog log;
        port.DispatchQueued();
        EXPECT_EQ(Shutdowns(), before + 1);
        // The answer's write that fails, and no read behind it. (The client's own packet: no Q.)
        EXPECT_EQ(log.text, "Q W16");
        if (main)
            RoundTrip(*main);
    }
    ExpectServing();
}

TEST_F(LifetimeTest, ClientGoneBeforeItsTransferFailsToStart) {
    for (const vcam::NtStatus status : {kStatusIoDeviceError, kStatusBufferOverflow}) {
        SCOPED_TRACE(status);
        main = ConnectQuietly(Reading::kAtOnce);
        auto client = ConnectQuietly();
        const std::uint32_t id = main->Messages().at(0).header.cameraId;
        // The body is still to be read when the client leaves, so that its packet is the next.
        const Bytes message = MessageBytes(3, 1, id, Read6(0, 1));
        WriteAndDispatch(*client, std::span(message).first(16));
        bus.SetBehaviour(camera, FailsAtOnce(status));
        WriteAndQueue(*client, std::span(message).subspan(16));
        client->Close();
        const std::size_t before = Shutdowns();
        port.DispatchQueued();
        EXPECT_EQ(Shutdowns(), before + 1);
        EXPECT_FALSE(server->FindDevice(id)) << "the camera is given up all the same";
        EXPECT_EQ(WaitForMessage(*main, 2).header.messageType, 5u);
        RoundTrip(*main);
        Leave(main);
        InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(camera));
    }
    ExpectServing();
}

TEST_F(LifetimeTest, MainCommunicatorGoneBeforeItsTransferFailsToStart) {
    main = ConnectQuietly();
    const Bytes message = MessageBytes(3, 1, kFirstCamera, Read6(0, 1));
    WriteAndDispatch(*main, std::span(message).first(16));
    bus.SetBehaviour(camera, FailsAtOnce(kStatusIoDeviceError));
    WriteAndQueue(*main, std::span(message).subspan(16));
    main->Close();
    port.DispatchQueued();
    EXPECT_EQ(Shutdowns(), 1u);
    EXPECT_EQ(output.CountError("No main communicator found on device detach.\n"), 1u);
    ExpectServing();
}

TEST_F(LifetimeTest, MainCommunicatorGoneWhenATransferOfAnotherFailsToStart) {
    main = ConnectQuietly();
    pipe = ConnectQuietly(Reading::kAtOnce);
    bus.SetBehaviour(camera, FailsAtOnce(kStatusIoDeviceError));
    // In this order: the request, then the end of the main communicator.
    WriteAndQueue(*pipe, MessageBytes(3, 9, kFirstCamera, Read6(0, 1)));
    main->Close();
    port.WaitForPackets(3);
    EXPECT_EQ(WaitForMessage(*pipe, 2).header.requestId, 9u);
    EXPECT_EQ(Shutdowns(), 1u);
    port.DispatchQueued();
    EXPECT_EQ(Shutdowns(), 1u);
    RoundTrip(*pipe);
    ExpectServing();
}

TEST_F(LifetimeTest, ClientGoneBeforeItsFirstNotification) {
    Plug();  // more than one: the second must not be sent to a session that is gone
    StopServer();
    StartServer();
    for (const bool isMain : {true, false}) {
        SCOPED_TRACE(isMain);
        if (!isMain)
            main = Connect(Reading::kAtOnce);
        const std::size_t before = Shutdowns();
        auto client = std::make_unique<PipeClient>(port, Reading::kNever);
        {
            const ConnectGap gap([&] { client->Close(); });
            WaitForShutdowns(before + 1);
        }
        port.DispatchQueued();
        EXPECT_EQ(Shutdowns(), before + 1);
        EXPECT_EQ(static_cast<bool>(server->GetMainCommunicator()), !isMain);
    }
    ExpectServing();
}

TEST_F(LifetimeTest, MainCommunicatorGoneWhenACameraArrives) {
    main = ConnectQuietly();
    pipe = ConnectQuietly();
    const vcam::CameraId second = Plug();
    main->Close();
    port.WaitForPackets(1);
    // The event would be behind the packet of the read that notices; so it is called for here.
    PostInterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(second));
    port.DispatchQueued();
    EXPECT_EQ(Shutdowns(), 1u);
    EXPECT_TRUE(server->FindDevice(2));
    ExpectServing();
}

TEST_F(LifetimeTest, MainCommunicatorThatTheEventFindsGone) {
    for (const WPARAM event : {WPARAM{DBT_DEVICEARRIVAL}, WPARAM{DBT_DEVICEREMOVECOMPLETE}}) {
        SCOPED_TRACE(event);
        main = ConnectQuietly();
        const std::size_t before = Shutdowns();
        const std::wstring path = bus.InterfacePath(event == DBT_DEVICEARRIVAL ? Plug() : camera);
        // First in the queue, before the packet of the read that the client's end completes.
        PostInterfaceEvent(event, path);
        port.WaitForPackets(1);
        main->Close();
        port.WaitForPackets(2);
        port.DispatchOne();
        EXPECT_EQ(Shutdowns(), before + 1) << "the notification's write fails";
        EXPECT_FALSE(server->GetMainCommunicator());
        port.DispatchQueued();
        EXPECT_EQ(Shutdowns(), before + 1);
        ExpectServing();
    }
}

TEST_F(LifetimeTest, MainCommunicatorGoneWhenItsOwnCameraLeaves) {
    main = ConnectQuietly();
    LeavePending(*main, 1, HeldUntil(TransferEnd::kSuccess));
    bus.ReleaseAll(camera);
    port.WaitForPackets(1);
    port.DispatchQueued();
    PostInterfaceEvent(DBT_DEVICEREMOVECOMPLETE, bus.InterfacePath(camera));
    port.WaitForPackets(1);
    main->Close();
    port.WaitForPackets(2);
    port.DispatchQueued();
    EXPECT_EQ(Shutdowns(), 1u);
    ExpectServing();
}

}  // namespace
