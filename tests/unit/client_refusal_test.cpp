// A command that the camera refused, and one whose camera has gone.

#include <chrono>
#include <cstdint>
#include <functional>

#include <gtest/gtest.h>

#include "client_of_fake_service.h"
#include "orvik/client.h"
#include "protocol/message.h"
#include "support/client_results.h"
#include "support/fake_service.h"

namespace {

using client_test::Answer;
using client_test::Client;
using client_test::FakeService;
using client_test::KindOf;
using client_test::Peer;
using client_test::Request;
using orvik::ErrorKind;

void ReportGone(Peer& peer, std::uint32_t camera) {
    peer.Send({kCameraDetached, kNotificationId, camera, 0});
}

/// Sends a command to camera 7 while camera 8 is present too, synchronously and asynchronously, and
/// expects that it ends with `kind` when the service does `answer`.
void ExpectEnd(ErrorKind kind, std::chrono::milliseconds goneWait,
               const std::function<void(Peer&, const Request&)>& answer) {
    for (const bool synchronous : {true, false}) {
        FakeService service([&](Peer& peer) {
            peer.Welcome({7, 8});
            answer(peer, peer.ReadRequest());
            peer.ReadToTheEnd();
        });
        orvik::ConnectOptions options;
        options.timeout = kDeadline;
        options.checkServer = false;
        options.pipe = service.Name();
        options.goneWait = goneWait;
        orvik::Client client(options);
        if (synchronous) {
            EXPECT_EQ(
                KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline); }),
                kind);
        } else {
            Answer result;
            client.StartTransferNoData(7, orvik::TestUnitReadyCdb(), result.Completion());
            EXPECT_EQ(KindOf([&] { result.Data(); }), kind);
        }
    }
}

TEST(ClientRefusal, BeforeTheReportThatTheCameraHasGone) {
    ExpectEnd(ErrorKind::kCameraGone, kDeadline, [](Peer& peer, const Request& request) {
        peer.Refuse(request);
        ReportGone(peer, 7);
    });
}

TEST(ClientRefusal, AfterTheReportThatTheCameraHasGone) {
    ExpectEnd(ErrorKind::kCameraGone, kDeadline, [](Peer& peer, const Request& request) {
        ReportGone(peer, 7);
        peer.Refuse(request);
    });
}

TEST(ClientRefusal, WithoutAReport) {
    ExpectEnd(ErrorKind::kRefused, orvik::kGoneWait,
              [](Peer& peer, const Request& request) { peer.Refuse(request); });
}

TEST(ClientRefusal, BeforeTheReportThatAnotherCameraHasGone) {
    ExpectEnd(ErrorKind::kRefused, orvik::kGoneWait, [](Peer& peer, const Request& request) {
        peer.Refuse(request);
        ReportGone(peer, 8);
    });
}

TEST(ClientRefusal, BeforeTheEndOfTheService) {
    ExpectEnd(ErrorKind::kRefused, kDeadline, [](Peer& peer, const Request& request) {
        peer.Refuse(request);
        peer.Close();
    });
}

TEST(ClientRefusal, AnsweredTwiceIsABadAnswer) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        peer.Refuse(request);
        peer.Refuse(request);
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline); }),
              ErrorKind::kRefused);
    EXPECT_EQ(KindOf([&] { client.RoundTrip(kDeadline); }), ErrorKind::kServiceGone);
}

TEST(ClientRefusal, SenseDataExplainsIt) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Refuse(peer.ReadRequest());
        const Request request = peer.ReadRequest();
        EXPECT_EQ(request.body.at(0), std::byte{0x03});
        Bytes data(18);
        data[0] = std::byte{0x70};
        data[2] = std::byte{0x02};
        data[7] = std::byte{10};
        data[12] = std::byte{0x3A};
        peer.Succeed(request, data);
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline); }),
              ErrorKind::kRefused);
    EXPECT_EQ(client.RequestSense(7, kDeadline).text, "NOT READY: MEDIUM NOT PRESENT");
}

}  // namespace
