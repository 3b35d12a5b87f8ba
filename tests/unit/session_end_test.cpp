// A session that ends with something in progress, for every role and every way to end.
// The guarded heap of these tests stops the program at any access to a freed block, the fixture
// looks for blocks and operations left behind, and the service must go on serving other clients.

#include <span>
#include <string>
#include <tuple>

#include <gtest/gtest.h>
#include <windows.h>

#include "guarded_heap.h"
#include "lifetime_fixture.h"

namespace {

constexpr char kProblem[] =
    "PROBLEM!!! ServerClient destructor with active overlapped structure.\n";

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

    void EndSession() { LifetimeTest::EndSession(Subject(), std::get<End>(GetParam())); }

    /// A session that ends with operations pending says so once, however many they are. One whose
    /// client has left ends with none, and the server's end takes the other session along.
    void ExpectOneLineForEachSessionThatEndedPending() const {
        const End end = std::get<End>(GetParam());
        const std::size_t count = end == End::kClientLeaves              ? 0u
                                  : end == End::kServerDestroyed && pipe ? 2u
                                                                         : 1u;
        EXPECT_EQ(output.CountError(kProblem), count) << output.Error();
    }

    /// Takes what comes later, and then other clients are served.
    void ExpectServingOthers() {
        port.DispatchQueued();
        EnsureServer();
        if (pipe && main)
            RoundTripIfAlive();
        ExpectServing();
    }

    const Bytes request = MessageBytes(3, 1, 0, {});  // that touches no camera

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

// The registry does not list its camera pipes, so only the main communicator can be named.
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
    ExpectOneLineForEachSessionThatEndedPending();
    ExpectServingOthers();
}

TEST_P(SessionEndTest, WithABodyReadPending) {
    ConnectSubject();
    const Bytes message = MessageBytes(3, 1, kFirstCamera, Pattern(1000));
    WriteAndDispatch(Subject(), std::span(message).first(500));
    EndSession();
    ExpectOneLineForEachSessionThatEndedPending();
    ExpectServingOthers();
    EXPECT_EQ(bus.Counters(camera).requests, 0u) << "half a request was carried out";
}

TEST_P(SessionEndedByTheServiceTest, WithAReadPacketQueuedButNotTaken) {
    ConnectSubject();
    WriteAndQueue(Subject(), MessageBytes(3, 1, kFirstCamera, Read6(0, 1)));
    output.Clear();
    EndSession();
    EXPECT_EQ(output.CountError(kProblem), pipe ? 1u : 0u)
        << "only the other session has a read pending: the OVERLAPPED of an operation that has "
           "ended "
           "does not look pending";
    ExpectServingOthers();
    EXPECT_EQ(bus.Counters(camera).requests, 0u) << "a request of a session that has gone";
}

TEST_P(SessionEndedByTheServiceTest, WithABodyReadPacketQueuedButNotTaken) {
    ConnectSubject();
    const Bytes message = MessageBytes(3, 1, kFirstCamera, Read6(0, 1));
    WriteAndDispatch(Subject(), std::span(message).first(16));
    WriteAndQueue(Subject(), std::span(message).subspan(16));
    EndSession();
    ExpectServingOthers();
    EXPECT_EQ(bus.Counters(camera).requests, 0u);
}

// Data that has come while no thread has waited on the port since: where the system hands it over
// only then, it is written into the session's memory after its end.

TEST_P(SessionEndedByTheServiceTest, WithAHeaderReadThatItsDataHasJustReached) {
    ConnectSubject();
    Subject().Write(MessageBytes(3, 1, kFirstCamera, Read6(0, 1)));
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, WithABodyReadThatItsDataHasJustReached) {
    ConnectSubject();
    const Bytes message = MessageBytes(3, 1, kFirstCamera, Read6(0, 1));
    WriteAndDispatch(Subject(), std::span(message).first(16));
    Subject().Write(std::span(message).subspan(16));
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, WithAWritePendingKeepsTheEntryThatIsBeingWrittenAlone) {
    ORVIK_NEEDS_GUARDED_HEAP();
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
    ExpectOneLineForEachSessionThatEndedPending();
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
    WriteAndDispatch(Subject(), std::span(request).first(5));
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, StalledByASplitHeaderWithItsSecondReadQueued) {
    ConnectSubject();
    WriteAndDispatch(Subject(), std::span(request).first(5));
    WriteAndQueue(Subject(), std::span(request).subspan(5));
    EndSession();
    ExpectServingOthers();
}

TEST_P(SessionEndedByTheServiceTest, StalledByASplitHeaderWithItsSecondReadRefused) {
    ConnectSubject();
    WriteAndDispatch(Subject(), std::span(request).first(5));
    WriteAndQueue(Subject(), std::span(request).subspan(5));
    port.DispatchQueued();
    EXPECT_EQ(output.CountError("IoOperation::Complete expected"), 1u);
    EndSession();
    EXPECT_EQ(output.CountError(kProblem),
              std::get<Role>(GetParam()) == Role::kCameraPipe ? 1u : 0u)
        << "only the other session has a read pending: " << output.Error();
    ExpectServingOthers();
}

}  // namespace
