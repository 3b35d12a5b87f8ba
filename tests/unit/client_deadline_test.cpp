// Time-outs, with a fake service that is late or does not stop sending.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_of_fake_service.h"
#include "import_hook.h"
#include "orvik/client.h"
#include "protocol/message.h"
#include "support/client_results.h"
#include "support/fake_service.h"
#include "support/messages.h"

extern "C" {
extern decltype(&::ReadFile) __imp_ReadFile;
}

namespace {

using namespace std::chrono_literals;
using client_test::AnswerTwoRequestsTogether;
using client_test::Client;
using client_test::EventLog;
using client_test::FakeService;
using client_test::KindOf;
using client_test::MakeBytes;
using client_test::Peer;
using client_test::Request;
using client_test::Signal;
using orvik::ErrorKind;

TEST(ClientDeadline, AnswerAfterTheTimeOutIsDiscarded) {
    FakeService service(AnswerTwoRequestsTogether);
    Client client(kDeadline, service.Name());
    EXPECT_EQ(KindOf([&] { client.TransferIn(7, orvik::InquiryCdb(), 50ms); }),
              ErrorKind::kTimedOut);
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kDeadline), MakeBytes({2}));
}

TEST(ClientDeadline, AnswerAfterTheTimeOutDoesNotReachTheNextCall) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request first = peer.ReadRequest();
        peer.ReadRequest();  // never answered
        peer.Succeed(first, MakeBytes({1}));
        peer.Refuse(peer.ReadRequest());  // the destructor's round trip
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    // Both calls are made at one place, so that the second one keeps its state where the first one
    // kept it: a late answer that is written there ends the second call.
    for (const std::chrono::milliseconds timeout : {50ms, 500ms}) {
        EXPECT_EQ(KindOf([&] { client.TransferIn(7, orvik::InquiryCdb(), timeout); }),
                  ErrorKind::kTimedOut);
    }
}

TEST(ClientDeadline, RequestThatTheServiceDoesNotReadClosesTheConnection) {
    Signal done;
    FakeService service([&](Peer& peer) {
        peer.Welcome({7});
        EXPECT_TRUE(done.Wait());
    });
    Client client(kDeadline, service.Name());
    const Bytes data(1 << 20);
    EXPECT_EQ(KindOf([&] { client.TransferOut(7, MakeBytes({0x0A}), data, 100ms); }),
              ErrorKind::kTimedOut);
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline); }),
              ErrorKind::kServiceGone);
    done.Set();
}

/// A service that sends notifications without end, to a client on a machine so slow that each read
/// takes five milliseconds: what the pipe holds at once, 4096 messages, takes the client twenty
/// seconds.
class EndlessService {
public:
    EndlessService()
        : service([this](Peer& peer) {
              peer.Welcome({1});
              Bytes notifications;
              for (int i = 0; i < 2048; ++i) {
                  for (const std::uint32_t type : {kCameraAttached, kCameraDetached}) {
                      const Bytes header = HeaderBytes({type, kNotificationId, 1, 0});
                      notifications.insert(notifications.end(), header.begin(), header.end());
                  }
              }
              EXPECT_TRUE(begin.Wait());
              while (!stopping && peer.Send(notifications)) {
              }
          }) {}
    ~EndlessService() { Stop(); }

    EndlessService(const EndlessService&) = delete;
    EndlessService& operator=(const EndlessService&) = delete;

    const std::wstring& Name() const { return service.Name(); }
    void Begin() {
        slow = true;
        begin.Set();
    }
    void Stop() {
        stopping = true;
        slow = false;
    }

    /// Waits until the client has begun 100 reads since Begin(): many more than it makes at once.
    bool WaitForManyReads() const { return manyReads.Wait(); }

    /// Runs `call`, whose own time limit is at most two seconds. Ten are for a machine that is
    /// busy.
    template <typename Call>
    void ExpectEnd(Call call) {
        auto ended = std::async(std::launch::async, std::move(call));
        if (ended.wait_for(10s) != std::future_status::ready) {
            ADD_FAILURE() << "the call did not keep its deadline";
            Stop();
        }
        ended.get();
    }

private:
    using Read = HookedImport<&__imp_ReadFile>;

    std::atomic<bool> slow{false};
    std::atomic<int> reads{0};
    std::atomic<bool> stopping{false};
    Signal begin;
    Signal manyReads;
    const Read read{
        [this](HANDLE file, void* target, DWORD size, DWORD* count, OVERLAPPED* overlapped) {
            if (slow) {
                if (++reads == 100)
                    manyReads.Set();
                ::Sleep(5);
            }
            return Read::Original(file, target, size, count, overlapped);
        }};
    FakeService service;
};

/// Keeps the log alive: events never cease, so one may be in the handler when the client is gone.
orvik::EventHandler HandlerOf(const std::shared_ptr<EventLog>& log) {
    return [log](const orvik::Event& event) { log->Handler()(event); };
}

TEST(ClientDeadline, HoldsWhileAServiceSendsWithoutEnd) {
    EndlessService service;
    Client client(kDeadline, service.Name());
    const auto log = std::make_shared<EventLog>();
    const orvik::Subscription subscription = client.Subscribe(HandlerOf(log));
    service.Begin();
    log->WaitFor(1);
    service.ExpectEnd(
        [&] { EXPECT_EQ(KindOf([&] { client.RoundTrip(200ms); }), ErrorKind::kTimedOut); });
    service.Stop();
}

TEST(ClientDeadline, HoldsWhileAnotherThreadReadsWhatAServiceSendsWithoutEnd) {
    EndlessService service;
    Client client(kDeadline, service.Name());
    service.Begin();
    auto other = std::async(std::launch::async,
                            [&] { return KindOf([&] { client.RoundTrip(kDeadline); }); });
    EXPECT_TRUE(service.WaitForManyReads());
    service.ExpectEnd(
        [&] { EXPECT_EQ(KindOf([&] { client.RoundTrip(200ms); }), ErrorKind::kTimedOut); });
    service.Stop();  // which closes the connection
    EXPECT_EQ(other.get(), ErrorKind::kServiceGone);
}

TEST(ClientDeadline, DestructorTakesAtMostTwoSecondsWhileAServiceSendsWithoutEnd) {
    EndlessService service;
    auto client = std::make_unique<Client>(kDeadline, service.Name());
    const auto log = std::make_shared<EventLog>();
    const orvik::Subscription subscription = client->Subscribe(HandlerOf(log));
    // With a request outstanding the destructor waits for an answer, which never comes.
    client->StartTransferNoData(1, orvik::TestUnitReadyCdb(), [](const orvik::TransferResult&) {});
    service.Begin();
    log->WaitFor(1);
    service.ExpectEnd([&] { client.reset(); });
}

}  // namespace
