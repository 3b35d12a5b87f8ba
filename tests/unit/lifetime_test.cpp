// Who goes away first: sessions, cameras and the server end with operations under way, in every
// order. The packets that come later must find nothing that is freed (the guarded heap of these
// tests stops the program), nothing may be left behind (the fixture looks), and the service must go
// on serving others.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <iostream>
#include <memory>
#include <new>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>
#include <wtsapi32.h>

#include "call_log.h"
#include "connect_gap.h"
#include "device/device.h"
#include "device/windows_exception.h"
#include "guarded_heap.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "session/server_client.h"

extern "C" decltype(&::WTSQueryUserToken) __imp_WTSQueryUserToken;

namespace {

using Reading = PipeClient::Reading;

constexpr char kProblem[] =
    "PROBLEM!!! ServerClient destructor with active overlapped structure.\n";

/// A camera, the server, and two clients: the main communicator and a camera pipe.
class LifetimeTest : public InProcessService {
protected:
    void SetUp() override {
        InProcessService::SetUp();
        camera = Plug();
        StartServer();
    }

    void TearDown() override {
        main.reset();
        pipe.reset();
        InProcessService::TearDown();
    }

    /// Connects a client that knows of the camera; nothing is under way for it but its read.
    std::unique_ptr<PipeClient> ConnectQuietly(Reading reading = Reading::kNever) {
        auto client = Connect(reading);
        if (reading == Reading::kAtOnce)
            WaitForMessage(*client, 1);
        port.DispatchQueued();
        return client;
    }

    /// Writes, and waits until the packets of both sides are queued behind `before` others.
    void WriteAndQueue(PipeClient& client, std::span<const std::byte> bytes,
                       std::size_t before = 0) {
        client.Write(bytes);
        port.WaitForPackets(before + 2);
    }

    /// Leaves requests pending in the driver.
    void LeavePending(PipeClient& client, std::uint32_t count, const vcam::Behaviour& how) {
        const std::uint32_t pending = bus.Counters(camera).pending;
        bus.SetBehaviour(camera, how);
        for (std::uint32_t index = 0; index < count; ++index)
            client.Write(MessageBytes(3, 300 + index, kFirstCamera, Read6(index, 1)));
        port.DispatchUntil("requests in the driver", [&] {
            return bus.Counters(camera).pending == pending + count && client.PendingWrites() == 0;
        });
        bus.SetBehaviour(camera, {});
    }

    /// Makes the write queue of a client that never reads long, with a write pending.
    void FillWriteQueue(PipeClient& client) {
        constexpr std::uint32_t kCount = 64;  // of 64 KiB each
        const std::uint64_t seen = bus.Counters(camera).requests;
        for (std::uint32_t index = 0; index < kCount; ++index)
            client.Write(MessageBytes(3, index, kFirstCamera, Read6(0, 128)));
        port.DispatchUntil("the requests", [&] {
            return bus.Counters(camera).requests == seen + kCount && client.PendingWrites() == 0;
        });
        port.DispatchQueued();
    }

    std::uint32_t Pending() { return bus.Counters(camera).pending; }

    vcam::CameraId camera = 0;
    std::unique_ptr<PipeClient> main;
    std::unique_ptr<PipeClient> pipe;
};

// ---- A session that ends with something under way, for every role and every way to end.

enum class Role { kMainCommunicator, kCameraPipe };
enum class End { kClientLeaves, kRegistryRemoves, kServerDestroyed };

std::string Name(Role role) {
    return role == Role::kMainCommunicator ? "MainCommunicator" : "CameraPipe";
}

std::string Name(End end) {
    switch (end) {
        case End::kClientLeaves:
            return "ClientLeaves";
        case End::kRegistryRemoves:
            return "RegistryRemoves";
        default:
            return "ServerDestroyed";
    }
}

class SessionEndTest : public LifetimeTest,
                       public ::testing::WithParamInterface<std::tuple<Role, End>> {
protected:
    /// The client whose session is to end.
    PipeClient& Subject() {
        return std::get<Role>(GetParam()) == Role::kMainCommunicator ? *main : *pipe;
    }

    void ConnectSubject(Reading reading = Reading::kNever) {
        main = ConnectQuietly(
            std::get<Role>(GetParam()) == Role::kMainCommunicator ? reading : Reading::kAtOnce);
        if (std::get<Role>(GetParam()) == Role::kCameraPipe)
            pipe = ConnectQuietly(reading);
    }

    /// Ends the session; the packets of what it had under way have not been taken then, except
    /// that a client that leaves is only noticed by one of them.
    void EndSession() {
        const std::size_t before = Shutdowns();
        switch (std::get<End>(GetParam())) {
            case End::kClientLeaves:
                Subject().Close();
                WaitForShutdowns(before + 1);
                break;
            case End::kRegistryRemoves:
                server->RemoveClient(server->GetMainCommunicator().get());
                break;
            case End::kServerDestroyed:
                server.reset();
                break;
        }
        EXPECT_GE(Shutdowns(), before + 1);
    }

    bool EndedWithoutAPacket() const { return std::get<End>(GetParam()) != End::kClientLeaves; }

    /// Takes what comes later, and then somebody else is served.
    void ExpectServingOthers() {
        port.DispatchQueued();
        if (!server) {
            port.Drain();
            StartServer();
        }
        if (pipe && main)
            RoundTripIfAlive();
        ExpectServing();
    }

private:
    void RoundTripIfAlive() {
        if (std::get<End>(GetParam()) == End::kClientLeaves)
            RoundTrip(*main);
    }
};

/// In states in which a client's end would not be noticed, or only after what is queued.
class SessionEndedByTheServiceTest : public SessionEndTest {};

std::string NameOf(const ::testing::TestParamInfo<std::tuple<Role, End>>& test) {
    return Name(std::get<Role>(test.param)) + Name(std::get<End>(test.param));
}

// The registry does not tell of its camera pipes, so only the main communicator can be named.
const auto kEndedByTheService =
    ::testing::Values(std::tuple(Role::kMainCommunicator, End::kRegistryRemoves),
                      std::tuple(Role::kMainCommunicator, End::kServerDestroyed),
                      std::tuple(Role::kCameraPipe, End::kServerDestroyed));

INSTANTIATE_TEST_SUITE_P(ByTheClient, SessionEndTest,
                         ::testing::Values(std::tuple(Role::kMainCommunicator, End::kClientLeaves),
                                           std::tuple(Role::kCameraPipe, End::kClientLeaves)),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(ByTheService, SessionEndTest, kEndedByTheService, NameOf);
INSTANTIATE_TEST_SUITE_P(ByTheService, SessionEndedByTheServiceTest, kEndedByTheService, NameOf);

TEST_P(SessionEndTest, WithAHeaderReadPending) {
    ConnectSubject();
    EndSession();
    EXPECT_EQ(output.CountError(kProblem) > 0, EndedWithoutAPacket()) << output.Error();
    ExpectServingOthers();
}

TEST_P(SessionEndTest, WithABodyReadPending) {
    ConnectSubject();
    const Bytes message = MessageBytes(3, 1, kFirstCamera, Pattern(1000));
    Subject().Write(std::span(message).first(500));
    port.DispatchUntil("half a body", [&] { return Subject().PendingWrites() == 0; });
    port.DispatchQueued();
    EndSession();
    EXPECT_EQ(output.CountError(kProblem) > 0, EndedWithoutAPacket()) << output.Error();
    ExpectServingOthers();
    EXPECT_EQ(bus.Counters(camera).requests, 0u) << "half a request was carried out";
}

TEST_P(SessionEndedByTheServiceTest, WithAReadPacketQueuedButNotTaken) {
    ConnectSubject();
    WriteAndQueue(Subject(), MessageBytes(3, 1, kFirstCamera, Read6(0, 1)));
    output.Clear();
    if (std::get<Role>(GetParam()) == Role::kMainCommunicator) {
        EndSession();
        EXPECT_EQ(output.CountError(kProblem), 0u)
            << "the OVERLAPPED of an operation that has ended does not look pending";
    } else {
        EndSession();
    }
    ExpectServingOthers();
    EXPECT_EQ(bus.Counters(camera).requests, 0u) << "a request of a session that has gone";
}

TEST_P(SessionEndedByTheServiceTest, WithABodyReadPacketQueuedButNotTaken) {
    ConnectSubject();
    const Bytes message = MessageBytes(3, 1, kFirstCamera, Read6(0, 1));
    Subject().Write(std::span(message).first(16));
    port.DispatchUntil("the header", [&] { return Subject().PendingWrites() == 0; });
    port.DispatchQueued();
    WriteAndQueue(Subject(), std::span(message).subspan(16));
    EndSession();
    ExpectServingOthers();
    EXPECT_EQ(bus.Counters(camera).requests, 0u);
}

// Data that has come while nobody has waited since: where the system hands it over only then, it
// is written into the session's memory after its end.

TEST_P(SessionEndedByTheServiceTest, WithAHeaderReadThatItsDataHasJustReached) {
    ConnectSubject();
    Subject().Write(MessageBytes(3, 1, kFirstCamera, Read6(0, 1)));
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, WithABodyReadThatItsDataHasJustReached) {
    ConnectSubject();
    const Bytes message = MessageBytes(3, 1, kFirstCamera, Read6(0, 1));
    Subject().Write(std::span(message).first(16));
    port.DispatchUntil("the header", [&] { return Subject().PendingWrites() == 0; });
    port.DispatchQueued();
    Subject().Write(std::span(message).subspan(16));
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, WithAWritePendingKeepsTheEntryThatIsBeingWrittenAlone) {
    ConnectSubject();
    constexpr std::size_t kEntry = 65536;  // bytes of data of one answer
    const std::size_t before = guarded_heap::LiveBlocks(kEntry);
    FillWriteQueue(Subject());
    EXPECT_GT(guarded_heap::LiveBlocks(kEntry), before + 10);
    EndSession();
    EXPECT_EQ(guarded_heap::LiveBlocks(kEntry), before + 1);
    ExpectServingOthers();
    EXPECT_EQ(guarded_heap::LiveBlocks(kEntry), before);
}

TEST_P(SessionEndTest, WithAWritePendingAndMegabytesQueued) {
    ConnectSubject();
    FillWriteQueue(Subject());
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, WithAWritePacketQueuedButNotTaken) {
    ConnectSubject();
    // The first packets are that of the read, and that of the client's write. Handling the request
    // starts the answer's write; it fits into the pipe's buffer, so its packet is queued at once.
    WriteAndQueue(Subject(), MessageBytes(3, 1, 0, {}));
    port.DispatchUntil("the request", [&] { return Subject().PendingWrites() == 0; });
    port.WaitForPackets(1);
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, StalledByASplitHeaderWithItsSecondReadPending) {
    ConnectSubject();
    const Bytes message = MessageBytes(3, 1, 0, {});
    Subject().Write(std::span(message).first(5));
    port.DispatchUntil("the first piece", [&] { return Subject().PendingWrites() == 0; });
    port.DispatchQueued();
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, StalledByASplitHeaderWithItsSecondReadQueued) {
    ConnectSubject();
    const Bytes message = MessageBytes(3, 1, 0, {});
    Subject().Write(std::span(message).first(5));
    port.DispatchUntil("the first piece", [&] { return Subject().PendingWrites() == 0; });
    port.DispatchQueued();
    WriteAndQueue(Subject(), std::span(message).subspan(5));
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, StalledByASplitHeaderWithItsSecondReadRefused) {
    ConnectSubject();
    const Bytes message = MessageBytes(3, 1, 0, {});
    Subject().Write(std::span(message).first(5));
    port.DispatchUntil("the first piece", [&] { return Subject().PendingWrites() == 0; });
    port.DispatchQueued();
    WriteAndQueue(Subject(), std::span(message).subspan(5));
    port.DispatchQueued();
    EXPECT_EQ(output.CountError("IoOperation::Complete expected"), 1u);
    EndSession();
    EXPECT_EQ(output.CountError(kProblem),
              std::get<Role>(GetParam()) == Role::kCameraPipe ? 1u : 0u)
        << "only the other session has a read pending: " << output.Error();
    ExpectServingOthers();
}

// ---- Transfers that end after their session.

enum class TransferEnd { kSuccess, kError, kAborted, kUnplug };

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

vcam::Behaviour HeldUntil(TransferEnd end) {
    vcam::Behaviour behaviour = Holds();
    behaviour.ignoreCancel = true;
    if (end == TransferEnd::kError)
        behaviour.completionStatus = kStatusIoDeviceError;
    if (end == TransferEnd::kAborted)
        behaviour.completionStatus = kStatusCancelled;
    return behaviour;
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
        const std::size_t before = Shutdowns();
        if (std::get<End>(GetParam()) == End::kClientLeaves) {
            client.Close();
            WaitForShutdowns(before + 1);
        } else if (std::get<End>(GetParam()) == End::kRegistryRemoves) {
            server->RemoveClient(server->GetMainCommunicator().get());
        } else {
            server.reset();
        }
    }

    void ExpectServingOthers() {
        if (!server) {
            port.Drain();
            StartServer();
        }
        ExpectServing();
    }
};

/// What a client that leaves meets then is ClientGoneBeforeATransferEndsIsRemovedByTheAnswer.
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

// ---- Sessions that end inside one of their own handlers.

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
    main->Write(std::span(message).first(200));
    port.DispatchUntil("a part", [&] { return main->PendingWrites() == 0; });
    port.DispatchQueued();
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
        main->Write(piece);
        port.DispatchUntil("a piece", [&] { return main->PendingWrites() == 0; });
        port.DispatchQueued();
    }
    EXPECT_EQ(output.CountError("IoOperation::Complete expected"), 1u);
    main->Close();
    WaitForShutdowns(1);  // nothing reads any more: this came from the write's packet
    ExpectServing();
}

TEST_F(LifetimeTest, StalledSessionIsNotRemovedByItsClientsEnd) {
    main = ConnectQuietly();
    const Bytes message = MessageBytes(3, 1, 0, {});
    main->Write(std::span(message).first(5));
    port.DispatchUntil("a piece", [&] { return main->PendingWrites() == 0; });
    port.DispatchQueued();
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
    port.DispatchOne();  // WriteComplete: the data finds nobody
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
        client->Write(std::span(message).first(16));
        port.DispatchUntil("the header", [&] { return client->PendingWrites() == 0; });
        port.DispatchQueued();
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
    main->Write(std::span(message).first(16));
    port.DispatchUntil("the header", [&] { return main->PendingWrites() == 0; });
    port.DispatchQueued();
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

// ---- Notifications to a client that has gone.

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

// ---- Cameras and the server.

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
    stalled->Write(std::span(message).first(3));
    port.DispatchUntil("the piece", [&] { return stalled->PendingWrites() == 0; });
    port.DispatchQueued();
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

TEST_F(LifetimeTest, ServerDestroyedWhileNobodyTakesItsPacketsAnyMore) {
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

// ---- The thread of the notification window, which is never stopped.

TEST_F(LifetimeTest, DeviceEventPostedToADestroyedServerIsDiscarded) {
    StopServer();
    // As in the service, whose server's memory is there up to the end of the process. Two of them:
    // nothing of the first is kept for its successor's sake.
    struct {
        alignas(Server) std::byte bytes[sizeof(Server)];
    } memories[2];
    std::vector<Server*> destroyed;
    for (auto& memory : memories) {
        destroyed.push_back(new (memory.bytes) Server(port.Get()));
        destroyed.back()->~Server();
        port.Drain();
    }
    output.Clear();

    struct {
        DEV_BROADCAST_DEVICEINTERFACE_W record{};
        wchar_t rest[1000] = L"";
    } event;
    event.record.dbcc_size = sizeof(event);
    event.record.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    event.record.dbcc_classguid = vcam::kCdromInterface;
    const std::size_t records = guarded_heap::LiveBlocks(sizeof(event));
    for (Server* const gone : destroyed) {
        gone->PostDeviceEvent(DBT_DEVICEARRIVAL,
                              reinterpret_cast<const DEV_BROADCAST_HDR*>(&event.record));
        EXPECT_EQ(port.Operations(), 1u);
        EXPECT_EQ(guarded_heap::LiveBlocks(sizeof(event)), records + 1);
        port.DispatchOne();
        EXPECT_EQ(port.Operations(), 0u);
        EXPECT_EQ(guarded_heap::LiveBlocks(sizeof(event)), records);
    }
    EXPECT_EQ(output.Wide(), L"") << "the event was handled";
    EXPECT_EQ(output.Out() + output.Error(), "");
}

/// Passes on what the thread that made this writes to the stream, and counts the writes of others.
class ThreadWatch : public std::streambuf {
public:
    explicit ThreadWatch(std::ostream& watched) : stream(watched), previous(stream.rdbuf(this)) {}
    ~ThreadWatch() override { stream.rdbuf(previous); }

    ThreadWatch(const ThreadWatch&) = delete;
    ThreadWatch& operator=(const ThreadWatch&) = delete;

    int ForeignWrites() const noexcept { return foreignWrites; }

protected:
    int_type overflow(int_type character) override {
        const char text = traits_type::to_char_type(character);
        xsputn(&text, 1);
        return traits_type::not_eof(character);
    }
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        if (::GetCurrentThreadId() == owner)
            return previous->sputn(text, size);
        ++foreignWrites;
        return size;
    }

private:
    std::ostream& stream;
    std::streambuf* previous;
    DWORD owner = ::GetCurrentThreadId();
    std::atomic<int> foreignWrites{0};
};

/// Asks for the desktop application again and again, as drives with the library come.
class LaunchingThread {
public:
    explicit LaunchingThread(Server& serverToUse) : server(serverToUse) {
        thread.reset(::CreateThread(nullptr, 0, Run, this, 0, nullptr));
    }
    ~LaunchingThread() {
        stopping = true;
        ::WaitForSingleObject(thread.get(), INFINITE);
    }

    LaunchingThread(const LaunchingThread&) = delete;
    LaunchingThread& operator=(const LaunchingThread&) = delete;

private:
    static DWORD WINAPI Run(void* argument) {
        auto* const self = static_cast<LaunchingThread*>(argument);
        while (!self->stopping)
            self->server.LaunchIfNoMainCommunicator();
        return 0;
    }

    Server& server;
    std::atomic<bool> stopping{false};
    UniqueHandle thread;
};

TEST_F(LifetimeTest, SessionsEndOnTheDispatcherThreadAloneWhileAnotherLooksForTheMainCommunicator) {
    const UniqueHandle launched(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const HookedImport<&__imp_WTSQueryUserToken> token([&launched](ULONG, HANDLE*) {
        ::SetEvent(launched.get());
        return FALSE;
    });
    const ThreadWatch errors(std::cerr);  // each of those launches writes a line
    const ThreadWatch lines(std::cout);
    {
        const LaunchingThread launching(*server);
        ASSERT_EQ(::WaitForSingleObject(launched.get(), 20000), WAIT_OBJECT_0);
        for (int count = 0; count < 100; ++count) {
            main = Connect(Reading::kNever);
            Leave(main);
        }
    }
    EXPECT_EQ(lines.ForeignWrites(), 0) << "another thread has ended sessions";
    EXPECT_GT(errors.ForeignWrites(), 0);
    ExpectServing();
}

}  // namespace
