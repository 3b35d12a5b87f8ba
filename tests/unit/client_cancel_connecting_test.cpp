// Connecting that is cancelled.

#include <future>
#include <string>

#include <gtest/gtest.h>

#include "busy_pipe.h"
#include "client_of_fake_service.h"
#include "orvik/client.h"
#include "support/client_results.h"
#include "support/fake_service.h"

namespace {

using client_test::BusyPipe;
using client_test::FakeService;
using client_test::KindOf;
using client_test::Peer;
using client_test::PipeWaitObserver;
using client_test::Request;
using client_test::Signal;
using orvik::ErrorKind;

orvik::ConnectOptions Options(const std::wstring& pipe, const orvik::ConnectCanceller& canceller) {
    orvik::ConnectOptions options;
    options.timeout = kDeadline;
    options.checkServer = false;
    options.pipe = pipe;
    options.canceller = canceller;
    return options;
}

TEST(ClientCancelConnecting, EndsTheWaitForTheServiceAndDisconnectsCleanly) {
    Signal asked;
    FakeService service([&](Peer& peer) {
        const Request first = peer.ReadRequest();
        asked.Set();
        const Request second = peer.ReadRequest();  // that of the disconnect
        peer.Refuse(first);
        peer.Refuse(second);
        EXPECT_TRUE(peer.ReadToTheEnd().empty());
    });
    const orvik::ConnectCanceller canceller;
    auto kind = std::async(std::launch::async, [&] {
        return KindOf([&] { orvik::Client client(Options(service.Name(), canceller)); });
    });
    EXPECT_TRUE(asked.Wait());
    canceller.Cancel();
    EXPECT_EQ(kind.get(), ErrorKind::kCancelled);
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientCancelConnecting, EndsTheWaitForAFreeInstance) {
    const BusyPipe pipe;
    const PipeWaitObserver observer;
    const orvik::ConnectCanceller canceller;
    auto kind = std::async(std::launch::async, [&] {
        return KindOf([&] { orvik::Client client(Options(pipe.Name(), canceller)); });
    });
    EXPECT_TRUE(observer.Wait());
    canceller.Cancel();
    EXPECT_EQ(kind.get(), ErrorKind::kCancelled);
}

TEST(ClientCancelConnecting, OpensNothingIfItWasCancelledBefore) {
    FakeService service([](Peer& peer) { peer.ReadToTheEnd(); });
    const orvik::ConnectCanceller canceller;
    canceller.Cancel();
    EXPECT_EQ(KindOf([&] { orvik::Client client(Options(service.Name(), canceller)); }),
              ErrorKind::kCancelled);
    EXPECT_EQ(service.Connections(), 0);
}

TEST(ClientCancelConnecting, HasNoEffectOnceConnected) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    const orvik::ConnectCanceller canceller;
    orvik::Client client(Options(service.Name(), canceller));
    canceller.Cancel();
    client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline);
}

}  // namespace
