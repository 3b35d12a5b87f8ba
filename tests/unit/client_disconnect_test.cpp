// Disconnecting without ending the service's run.

#include <array>
#include <chrono>
#include <cstring>
#include <future>

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
using client_test::FakeService;
using client_test::Peer;
using client_test::Request;
using client_test::Signal;

TEST(ClientDisconnect, WaitsUntilTheServiceHasStartedItsNextRead) {
    Signal secondConnected;
    Signal nextTurn;
    Signal left;
    std::promise<bool> wasThere;
    FakeService service(
        [&](Peer& peer) {
            peer.Welcome({});
            // The service has answered and is not yet reading.
            EXPECT_TRUE(secondConnected.Wait());
            wasThere.set_value(peer.ClientIsConnected());
            nextTurn.Set();
            EXPECT_TRUE(peer.ReadToTheEnd().empty());
            left.Set();
        },
        [&](int number) {
            if (number == 2) {
                secondConnected.Set();
                nextTurn.Wait();
            }
        });
    { const Client client(kDeadline, service.Name()); }
    EXPECT_TRUE(wasThere.get_future().get()) << "disconnected before the service's next turn";
    EXPECT_TRUE(left.Wait());
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientDisconnect, NeedsNoSecondConnectionAfterASuccess) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    {
        Client client(kDeadline, service.Name());
        client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline);
    }
    EXPECT_EQ(service.Connections(), 1);
}

/// Reads and refuses a round trip, then expects the end of the connection.
void ExpectRoundTripAndDisconnect(Peer& peer) {
    const Request roundTrip = peer.ReadRequest();
    EXPECT_EQ(roundTrip.header.bodyLength, 0U);
    peer.Refuse(roundTrip);
    EXPECT_TRUE(peer.ReadToTheEnd().empty());
}

TEST(ClientDisconnect, SuccessBeforeTheNewestRequestProvesNothing) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest());
        peer.ReadRequest();  // never answered
        ExpectRoundTripAndDisconnect(peer);
    });
    {
        Client client(kDeadline, service.Name());
        client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline);
        client.StartTransferNoData(7, orvik::TestUnitReadyCdb(),
                                   [](const orvik::TransferResult&) { FAIL() << "an answer"; });
    }
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientDisconnect, SuccessOfAnOlderRequestProvesNothing) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request older = peer.ReadRequest();
        peer.ReadRequest();  // never answered
        peer.Succeed(older);
        ExpectRoundTripAndDisconnect(peer);
    });
    {
        Client client(kDeadline, service.Name());
        Answer older;
        client.StartTransferNoData(7, orvik::TestUnitReadyCdb(), older.Completion());
        client.StartTransferNoData(7, orvik::TestUnitReadyCdb(),
                                   [](const orvik::TransferResult&) { FAIL() << "an answer"; });
        older.Data();
    }
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientDisconnect, WaitsForTheServiceAndNotForTheCamera) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.ReadRequest();  // never answered
        ExpectRoundTripAndDisconnect(peer);
    });
    {
        Client client(kDeadline, service.Name());
        client.StartTransferNoData(7, orvik::TestUnitReadyCdb(),
                                   [](const orvik::TransferResult&) { FAIL() << "an answer"; });
    }
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientDisconnect, ServiceThatHangsFindsTwoRequestsThatTouchNoCamera) {
    Signal left;
    FakeService service(
        [&](Peer& peer) {
            peer.Welcome({});
            EXPECT_TRUE(left.Wait());
            const Bytes rest = peer.ReadToTheEnd();
            std::array<MessageHeader, 2> requests{};
            ASSERT_EQ(rest.size(), sizeof(requests));
            std::memcpy(requests.data(), rest.data(), sizeof(requests));
            for (const MessageHeader& request : requests) {
                EXPECT_EQ(request.messageType, 4U);
                EXPECT_EQ(request.bodyLength, 0U);
            }
        },
        [&](int number) {
            if (number == 2)
                left.Wait();
        });
    const auto start = std::chrono::steady_clock::now();
    { const Client client(kDeadline, service.Name()); }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    left.Set();
}

}  // namespace
