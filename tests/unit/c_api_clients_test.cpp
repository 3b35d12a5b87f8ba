// The C interface: clients, cameras, events and closing.

#include <array>
#include <atomic>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "c_api_fixture.h"

namespace {

using namespace c_api_test;

using Words = std::vector<std::string>;

class CApiClients : public CApi {};

TEST_F(CApiClients, PlainClientKnowsTheCamerasPresent) {
    Connect();
    orvik_camera cameras[2] = {};
    std::uint32_t count = 0;
    EXPECT_EQ(orvik_client_cameras(client, cameras, 2, &count), ORVIK_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(cameras[0], camera);
    EXPECT_EQ(cameras[1], 0u);
    EXPECT_EQ(orvik_client_round_trip(client, kMilliseconds), ORVIK_OK);
}

TEST_F(CApiClients, PersistentClientKnowsTheCamerasPresent) {
    Open();
    orvik_camera present = 0;
    std::uint32_t count = 0;
    EXPECT_EQ(orvik_client_cameras(client, &present, 1, &count), ORVIK_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(present, camera);
    EXPECT_EQ(NoData(kSucceed), ORVIK_OK);
    EXPECT_EQ(orvik_client_round_trip(client, kMilliseconds), ORVIK_ERROR_INVALID_ARGUMENT);
}

TEST_F(CApiClients, NumberOfCamerasIsWrittenAlsoWhenTheBufferIsTooSmall) {
    Connect();
    std::uint32_t count = 0;
    EXPECT_EQ(orvik_client_cameras(client, nullptr, 0, &count), ORVIK_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(count, 1u);
}

TEST_F(CApiClients, PlainClientReportsTheEndOfTheConnectionLast) {
    Connect();
    EXPECT_EQ(NoData(kHangUp), ORVIK_ERROR_SERVICE_GONE);
    EXPECT_EQ(events.WaitFor(2), (Words{"+7", "service gone"}));
}

TEST_F(CApiClients, PersistentClientConnectsAgainAndRefusesTheOldCamera) {
    Open();
    EXPECT_EQ(NoData(kHangUp), ORVIK_ERROR_SERVICE_GONE);
    EXPECT_EQ(events.WaitFor(6), (Words{"connected", "+4294967303", "-4294967303", "service gone",
                                        "connected", "+8589934599"}));
    EXPECT_EQ(NoData(kSucceed), ORVIK_ERROR_NO_SUCH_CAMERA);
    camera = 8589934599;
    EXPECT_EQ(NoData(kSucceed), ORVIK_OK);
}

TEST_F(CApiClients, PersistentClientReportsWhyItCannotConnect) {
    std::promise<orvik_event> reported;
    std::string text;
    events.Then([&](orvik_client*, const orvik_event& event) {
        text = event.text;
        reported.set_value(event);
    });
    options.pipe = R"(\\.\pipe\orvik-client-test-none)";
    options.on_event = Recorder::Event;
    options.user = &events;
    ASSERT_EQ(orvik_client_open(&options, &client), ORVIK_OK);
    const orvik_event event = reported.get_future().get();
    EXPECT_EQ(event.kind, ORVIK_EVENT_DISCONNECTED);
    EXPECT_EQ(event.status, ORVIK_ERROR_STOPPED);
    EXPECT_EQ(event.system_code, DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_NE(text.find("(error 2)"), std::string::npos) << text;
    Close();  // before `reported`, which another event would set again
}

/// Both kinds of clients; true: persistent.
class CApiDisconnected : public CApi {
protected:
    /// Sends a command that makes the library close the connection, and returns the event.
    orvik_event DisconnectBy(Command command) {
        std::promise<orvik_event> reported;
        events.Then([&](orvik_client*, const orvik_event& event) {
            if (event.kind != ORVIK_EVENT_DISCONNECTED)
                return;
            text = event.text;
            reported.set_value(event);
        });
        ConnectOrOpen();
        NoData(command);
        const orvik_event event = reported.get_future().get();
        Close();  // before `reported`
        return event;
    }

    std::string text;
};

INSTANTIATE_TEST_SUITE_P(Kinds, CApiDisconnected, testing::Bool(), NameOfKind);

TEST_P(CApiDisconnected, SaysThatTheServiceHasGoneWithTheSystemCode) {
    const orvik_event event = DisconnectBy(kHangUp);
    EXPECT_EQ(event.status, ORVIK_ERROR_SERVICE_GONE);
    EXPECT_EQ(event.system_code, DWORD{ERROR_BROKEN_PIPE});
    EXPECT_EQ(text.find("the service has closed the connection: "), 0u) << text;
}

TEST_P(CApiDisconnected, SaysThatTheServiceSentInvalidData) {
    const orvik_event event = DisconnectBy(kBadAnswer);
    EXPECT_EQ(event.status, ORVIK_ERROR_BAD_ANSWER);
    EXPECT_EQ(event.system_code, 0u);
    EXPECT_NE(text.find("which is not outstanding"), std::string::npos) << text;
}

TEST_F(CApiClients, ClientWithoutAnEventCallbackWorks) {
    ASSERT_EQ(orvik_client_connect(&options, &client), ORVIK_OK) << orvik_last_error_text();
    camera = kCameraId;
    EXPECT_EQ(NoData(kSucceed), ORVIK_OK);
}

TEST_F(CApiClients, ConnectingCanBeCancelled) {
    Signal asked;
    FakeService silent([&](Peer& peer) {
        peer.ReadOnce();
        asked.Set();
        peer.ReadToTheEnd();
    });
    const std::string name = ToUtf8(silent.Name());
    options.pipe = name.c_str();
    ASSERT_EQ(orvik_canceller_create(&options.canceller), ORVIK_OK);
    auto connecting = std::async(std::launch::async, [&] {
        orvik_client* none = nullptr;
        const orvik_status status = orvik_client_connect(&options, &none);
        EXPECT_EQ(none, nullptr);
        return status;
    });
    EXPECT_TRUE(asked.Wait());
    EXPECT_EQ(orvik_canceller_cancel(options.canceller), ORVIK_OK);
    EXPECT_EQ(connecting.get(), ORVIK_ERROR_CANCELLED);
    orvik_canceller_close(options.canceller);
}

/// Both kinds of clients; true: persistent.
class CApiClosing : public CApi {};

INSTANTIATE_TEST_SUITE_P(Kinds, CApiClosing, testing::Bool(), NameOfKind);

TEST_P(CApiClosing, WaitsForTheCallbackInProgress) {
    ConnectOrOpen();
    Signal called;
    Signal release;
    std::atomic<bool> returned{false};
    Completion completion([&] {
        called.Set();
        EXPECT_TRUE(release.Wait());
        EXPECT_EQ(NoData(kSucceed), ORVIK_OK);
        returned = true;
    });
    ASSERT_EQ(Start(kSucceed, completion), ORVIK_OK);
    ASSERT_TRUE(called.Wait());
    Signal closing;
    auto closed = std::async(std::launch::async, [&] {
        closing.Set();
        orvik_client_close(client);
        EXPECT_TRUE(returned);
    });
    ASSERT_TRUE(closing.Wait());
    release.Set();
    closed.get();
    client = nullptr;
}

TEST_P(CApiClosing, EndsEveryOutstandingRequestOnce) {
    ConnectOrOpen();
    std::array<Completion, 3> completions{};
    for (Completion& completion : completions)
        ASSERT_EQ(Start(kHold, completion), ORVIK_OK);
    orvik_request* request = nullptr;
    Completion last;
    ASSERT_EQ(Start(kHold, last, &request), ORVIK_OK);
    Close();
    EXPECT_EQ(last.calls, 1);
    EXPECT_EQ(last.Status(), ORVIK_ERROR_CANCELLED);
    EXPECT_EQ(last.text, "the client was closed");
    for (Completion& completion : completions) {
        EXPECT_EQ(completion.calls, 1);
        EXPECT_EQ(completion.Status(), ORVIK_ERROR_CANCELLED);
    }
    EXPECT_EQ(orvik_request_cancel(request), ORVIK_ERROR_NOT_OUTSTANDING);
    orvik_request_close(request);
}

TEST_P(CApiClosing, CompletionThatItCallsCannotStartAnother) {
    ConnectOrOpen();
    orvik_status second = ORVIK_OK;
    Completion never;
    Completion completion([&] { second = Start(kSucceed, never); });
    ASSERT_EQ(Start(kHold, completion), ORVIK_OK);
    Close();
    EXPECT_EQ(second, ORVIK_ERROR_SERVICE_GONE);
    EXPECT_EQ(never.calls, 0);
}

TEST_P(CApiClosing, MayBeDoneByACompletionAlsoOfItsRequest) {
    ConnectOrOpen();
    Completion held;
    orvik_request* request = nullptr;
    Signal started;
    Completion completion([&] {
        EXPECT_TRUE(started.Wait());
        orvik_request_close(request);
        Close();
    });
    ASSERT_EQ(Start(kHold, held), ORVIK_OK);
    ASSERT_EQ(Start(kSucceed, completion, &request), ORVIK_OK);
    started.Set();
    EXPECT_EQ(completion.Status(), ORVIK_OK);
    EXPECT_EQ(held.Status(), ORVIK_ERROR_CANCELLED);
}

TEST_P(CApiClosing, MayBeDoneByTheFirstEvent) {
    Signal closed;
    events.Then([&](orvik_client* itself, const orvik_event&) {
        orvik_client_close(itself);
        closed.Set();
    });
    options.on_event = Recorder::Event;
    options.user = &events;
    orvik_client* made = nullptr;
    ASSERT_EQ(
        GetParam() ? orvik_client_open(&options, &made) : orvik_client_connect(&options, &made),
        ORVIK_OK);
    EXPECT_TRUE(closed.Wait());
    EXPECT_EQ(events.WaitFor(1).size(), 1u);
}

TEST(CApiHandles, NullIsClosedWithoutEffect) {
    orvik_client_close(nullptr);
    orvik_request_close(nullptr);
    orvik_canceller_close(nullptr);
}

}  // namespace
