// Event handlers and completions, and the client's thread.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_of_fake_service.h"
#include "orvik/client.h"
#include "protocol/message.h"
#include "support/client_results.h"
#include "support/fake_service.h"

namespace {

using namespace std::chrono_literals;
using client_test::Answer;
using client_test::Client;
using client_test::EventLog;
using client_test::FakeService;
using client_test::KindOf;
using client_test::MakeBytes;
using client_test::Peer;
using client_test::Signal;
using orvik::ErrorKind;

TEST(ClientEvents, BeginWithTheCamerasPresentAndEndWithTheService) {
    Signal subscribed;
    FakeService service([&](Peer& peer) {
        peer.Welcome({3, 1});
        EXPECT_TRUE(subscribed.Wait());
        peer.Announce(9);
        peer.Announce(9);
        peer.Send({kCameraDetached, kNotificationId, 3, 0});
        peer.Send({kCameraDetached, kNotificationId, 4, 0});
    });
    Client client(kDeadline, service.Name());
    EventLog log;
    EventLog later;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    EXPECT_EQ(log.WaitFor(2), (std::vector<std::string>{"+3", "+1"}));
    subscribed.Set();
    EXPECT_EQ(log.WaitFor(5), (std::vector<std::string>{"+3", "+1", "+9", "-3", "gone"}));
    const orvik::Subscription tooLate = client.Subscribe(later.Handler());
    EXPECT_EQ(later.WaitFor(1), (std::vector<std::string>{"gone"}));
    EXPECT_EQ(log.ClosedBy(), later.ClosedBy());
    EXPECT_EQ(later.ClosedBy().find("the service has closed the connection: "), 0u)
        << later.ClosedBy();
    EXPECT_EQ(KindOf([&] { client.Cameras(); }), ErrorKind::kServiceGone);
}

TEST(ClientEvents, NoCallBeginsOnceASubscriptionHasEnded) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    std::atomic<bool> stop{false};
    EventLog all;
    Signal subscribed;
    Signal lastSent;
    FakeService service([&](Peer& peer) {
        peer.Welcome({});
        EXPECT_TRUE(subscribed.Wait());
        for (std::uint32_t camera = 1; !stop; ++camera) {
            const std::size_t count = all.Count();
            peer.Announce(camera);
            peer.Send({kCameraDetached, kNotificationId, camera, 0});
            all.WaitFor(count + 1);
        }
        lastSent.Set();
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    const orvik::Subscription throughout = client.Subscribe(all.Handler());
    subscribed.Set();
    std::atomic<int> calls{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                std::atomic<bool> ended{false};
                std::once_flag once;
                Signal called;
                orvik::Subscription subscription = client.Subscribe([&](const orvik::Event&) {
                    EXPECT_FALSE(ended) << "called after the end";
                    std::call_once(once, [&] { called.Set(); });
                    ++calls;
                });
                EXPECT_TRUE(called.Wait());
                subscription.End();
                all.WaitFor(all.Count() + 1);  // a call that was in progress has ended then
                ended = true;
                all.WaitFor(all.Count() + 1);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    stop = true;
    EXPECT_TRUE(lastSent.Wait());
    EXPECT_GE(calls, kThreads * kRounds);
    // Each event in its order, none twice and none left out.
    const std::vector<std::string> words = all.Words();
    for (std::size_t i = 0; i < words.size(); ++i)
        ASSERT_EQ(words[i], (i % 2 == 0 ? "+" : "-") + std::to_string(i / 2 + 1));
}

TEST(ClientEvents, HandlerMayEndItsSubscriptionAndASubscriptionMayOutliveTheClient) {
    FakeService service([](Peer& peer) {
        peer.Welcome({1, 2, 3});
        peer.ReadToTheEnd();
    });
    orvik::Subscription outliving;
    std::atomic<int> calls{0};
    {
        Client client(kDeadline, service.Name());
        orvik::Subscription own;
        Signal set;
        own = client.Subscribe([&](const orvik::Event&) {
            EXPECT_TRUE(set.Wait());
            ++calls;
            own.End();
        });
        set.Set();
        EventLog log;
        outliving = client.Subscribe(log.Handler());
        EXPECT_EQ(log.WaitFor(3).size(), 3U);
        EXPECT_EQ(calls, 1);
    }
    outliving.End();
}

TEST(ClientHandlers, MayMakeSynchronousTransfers) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest(), MakeBytes({1}));
        peer.Succeed(peer.ReadRequest(), MakeBytes({2}));
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    std::promise<Bytes> answer;
    client.StartTransferIn(7, orvik::InquiryCdb(), [&](orvik::TransferResult first) {
        Bytes both = std::move(first.data);
        both.push_back(client.TransferIn(7, orvik::InquiryCdb(), kDeadline).at(0));
        answer.set_value(both);
    });
    EXPECT_EQ(answer.get_future().get(), MakeBytes({1, 2}));
}

TEST(ClientHandlers, LongOneDoesNotDelayASynchronousTransfer) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest(), MakeBytes({1}));
        peer.ReadToTheEnd();
    });
    Signal called;
    Signal answered;
    Client client(kDeadline, service.Name());
    const orvik::Subscription subscription = client.Subscribe([&](const orvik::Event&) {
        called.Set();
        EXPECT_TRUE(answered.Wait());
    });
    ASSERT_TRUE(called.Wait());
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kDeadline), MakeBytes({1}));
    answered.Set();
}

TEST(ClientDestroyed, FromAnEventHandlerAndFromACompletion) {
    for (const bool completion : {false, true}) {
        FakeService service([&](Peer& peer) {
            peer.Welcome({7});
            if (completion)
                peer.Succeed(peer.ReadRequest());
            peer.ReadToTheEnd();
        });
        auto client = std::make_unique<Client>(kDeadline, service.Name());
        Signal ready;
        Signal destroyed;
        std::atomic<int> calls{0};
        const auto destroy = [&] {
            EXPECT_TRUE(ready.Wait());
            EXPECT_EQ(++calls, 1);
            client.reset();
            destroyed.Set();
        };
        orvik::Subscription subscription;
        if (completion)
            client->StartTransferNoData(7, orvik::TestUnitReadyCdb(),
                                        [&](const orvik::TransferResult&) { destroy(); });
        else
            subscription = client->Subscribe([&](const orvik::Event&) { destroy(); });
        ready.Set();
        EXPECT_TRUE(destroyed.Wait());
    }
}

TEST(ClientDestroyed, DoesNotWaitForAHandlerAndCallsNoOtherOne) {
    FakeService service([](Peer& peer) {
        peer.Welcome({1, 2});
        peer.ReadRequest();  // never answered
        peer.Refuse(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    Signal called;
    Signal destroyed;
    Signal ended;
    std::atomic<int> calls{0};
    orvik::Subscription subscription;
    {
        Client client(kDeadline, service.Name());
        subscription = client.Subscribe([&](const orvik::Event&) {
            EXPECT_EQ(++calls, 1);
            called.Set();
            EXPECT_TRUE(destroyed.Wait());
            ended.Set();
        });
        client.StartTransferNoData(1, orvik::TestUnitReadyCdb(),
                                   [&](const orvik::TransferResult&) { ++calls; });
        ASSERT_TRUE(called.Wait());
    }
    destroyed.Set();
    EXPECT_TRUE(ended.Wait());
    EXPECT_EQ(calls, 1);
}

TEST(ClientThreads, ReadOfAThreadThatHasEndedIsStartedAgain) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest(), MakeBytes({1}));
        peer.ReadRequest();
        peer.Succeed(peer.ReadRequest(), MakeBytes({2}));
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    // This thread has started the pending read, after its first answer.
    std::thread([&] {
        EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kDeadline), MakeBytes({1}));
        EXPECT_EQ(KindOf([&] { client.TransferIn(7, orvik::InquiryCdb(), 50ms); }),
                  ErrorKind::kTimedOut);
    }).join();
    Answer answer;
    client.StartTransferIn(7, orvik::InquiryCdb(), answer.Completion());
    EXPECT_EQ(answer.Data(), MakeBytes({2}));
}

TEST(ClientThreads, AssignmentDisconnectsTheFirstConnection) {
    FakeService first([](Peer& peer) {
        peer.Welcome({7});
        peer.ReadRequest();
        peer.Refuse(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    FakeService second([](Peer& peer) {
        peer.Welcome({8});
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, first.Name());
    client.StartTransferNoData(7, orvik::TestUnitReadyCdb(),
                               [](const orvik::TransferResult&) { FAIL() << "an answer"; });
    client = Client(kDeadline, second.Name());
    EXPECT_EQ(client.Cameras(), (std::vector<orvik::CameraId>{8}));
}

}  // namespace
