// Time-outs of asynchronous transfers.

#include <chrono>
#include <future>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_of_fake_service.h"
#include "import_hook.h"
#include "orvik/client.h"
#include "support/client_results.h"
#include "support/fake_service.h"

extern "C" decltype(&::WaitForMultipleObjects) __imp_WaitForMultipleObjects;

namespace {

using namespace std::chrono_literals;
using client_test::Answer;
using client_test::AnswerTwoRequestsTogether;
using client_test::Client;
using client_test::FakeService;
using client_test::KindOf;
using client_test::MakeBytes;
using client_test::Peer;
using client_test::Request;
using client_test::Signal;
using orvik::ErrorKind;

TEST(ClientAsyncDeadline, EndsTheTransferAndDropsTheLateAnswer) {
    FakeService service(AnswerTwoRequestsTogether);
    Client client(kDeadline, service.Name());
    Answer first;
    const orvik::RequestId id =
        client.StartTransferIn(7, orvik::InquiryCdb(), first.Completion(), 50ms);
    EXPECT_EQ(KindOf([&] { first.Data(); }), ErrorKind::kTimedOut);
    EXPECT_FALSE(client.Cancel(id));
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kDeadline), MakeBytes({2}));
}

TEST(ClientAsyncDeadline, HoldsForATransferThatStartsWhileTheThreadWaitsForAnother) {
    Signal waiting;
    std::once_flag once;
    using Wait = HookedImport<&__imp_WaitForMultipleObjects>;
    const Wait hook([&, test = std::this_thread::get_id()](DWORD count, const HANDLE* handles,
                                                           BOOL all, DWORD milliseconds) {
        if (std::this_thread::get_id() != test && count == 2)
            std::call_once(once, [&] { waiting.Set(); });
        return Wait::Original(count, handles, all, milliseconds);
    });
    Signal done;
    FakeService service([&](Peer& peer) {
        peer.Welcome({7});
        const Request first = peer.ReadRequest();
        peer.ReadRequest();  // never answered
        EXPECT_TRUE(done.Wait());
        peer.Succeed(first);
        peer.Refuse(peer.ReadRequest());  // the destructor's round trip
        peer.ReadToTheEnd();
    });
    // The thread looks for ended time-outs also at the end of this one.
    Client client(10 * kDeadline, service.Name());
    Answer first;
    Answer second;
    client.StartTransferNoData(7, orvik::TestUnitReadyCdb(), first.Completion());
    EXPECT_TRUE(waiting.Wait());
    client.StartTransferOut(7, orvik::TestUnitReadyCdb(), {}, second.Completion(), 50ms);
    EXPECT_EQ(KindOf([&] { second.Data(); }), ErrorKind::kTimedOut);
    done.Set();
    EXPECT_TRUE(first.Data().empty());
}

TEST(ClientAsyncDeadline, HoldsWhileASynchronousCallWaits) {
    Signal waiting;
    Signal done;
    FakeService service([&](Peer& peer) {
        peer.Welcome({7});
        const Request synchronous = peer.ReadRequest();
        waiting.Set();
        peer.ReadRequest();  // never answered
        EXPECT_TRUE(done.Wait());
        peer.Succeed(synchronous);
        peer.Refuse(peer.ReadRequest());  // the destructor's round trip
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    auto call = std::async(std::launch::async,
                           [&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline); });
    EXPECT_TRUE(waiting.Wait());
    Answer answer;
    client.StartTransferNoData(7, orvik::TestUnitReadyCdb(), answer.Completion(), 50ms);
    EXPECT_EQ(KindOf([&] { answer.Data(); }), ErrorKind::kTimedOut);
    done.Set();
    call.get();
}

TEST(ClientAsyncDeadline, DoesNotEndATransferThatIsAnsweredInTime) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest(), MakeBytes({1}));
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    Answer answer;
    client.StartTransferIn(7, orvik::InquiryCdb(), answer.Completion(), kDeadline);
    EXPECT_EQ(answer.Data(), MakeBytes({1}));
}

}  // namespace
