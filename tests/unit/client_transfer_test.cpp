// Requests and their answers, with a fake service.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <random>
#include <set>
#include <span>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client/request_id.h"
#include "client_of_fake_service.h"
#include "orvik/client.h"
#include "protocol/message.h"
#include "support/client_results.h"
#include "support/fake_service.h"
#include "support/messages.h"

namespace {

using namespace std::chrono_literals;
using client_test::Answer;
using client_test::AnswerTwoRequestsTogether;
using client_test::Client;
using client_test::ErrorOf;
using client_test::FakeService;
using client_test::KindOf;
using client_test::MakeBytes;
using client_test::Peer;
using client_test::Request;
using client_test::Signal;
using orvik::ErrorKind;

TEST(ClientTransfer, InReturnsTheData) {
    const Bytes data = Pattern(65536);
    FakeService service([&](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        EXPECT_EQ(request.header.messageType, 3U);
        EXPECT_EQ(request.header.cameraId, 7U);
        EXPECT_EQ(request.body, MakeBytes({0x12, 0, 0, 0, 36, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
        peer.Succeed(request, data);
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kDeadline), data);
}

TEST(ClientTransfer, OutSendsThePaddedCdbThenTheData) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        EXPECT_EQ(request.header.messageType, 2U);
        EXPECT_EQ(request.body, MakeBytes({0x0A, 1, 2, 3, 4, 5, 6, 7, 0, 0, 0, 0, 0, 0, 0, 0,  //
                                           0xAA, 0xBB, 0xCC}));
        peer.Succeed(request);
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    client.TransferOut(7, MakeBytes({0x0A, 1, 2, 3, 4, 5, 6, 7}), MakeBytes({0xAA, 0xBB, 0xCC}),
                       kDeadline);
}

TEST(ClientTransfer, MegabytesOut) {
    const Bytes data = Pattern(std::size_t{8} << 20);
    FakeService service([&](Peer& peer) {
        peer.Welcome({7});
        Request request{};
        const Bytes header = peer.ReadOnce(sizeof(MessageHeader));
        ASSERT_EQ(header.size(), sizeof(MessageHeader));
        std::memcpy(&request.header, header.data(), sizeof(MessageHeader));
        while (request.body.size() < request.header.bodyLength) {
            const Bytes some = peer.ReadOnce(request.header.bodyLength - request.body.size());
            ASSERT_FALSE(some.empty());
            request.body.insert(request.body.end(), some.begin(), some.end());
        }
        EXPECT_TRUE(
            std::equal(data.begin(), data.end(), request.body.begin() + 16, request.body.end()));
        peer.Succeed(request);
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    client.TransferOut(7, MakeBytes({0x0A}), data, kDeadline);
}

TEST(ClientTransfer, RequestIsSentWithOneWrite) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Bytes message = peer.ReadOnce();
        EXPECT_EQ(message.size(), 16U + 16U + 512U);
        Request request{};
        std::memcpy(&request.header, message.data(), sizeof(MessageHeader));
        EXPECT_EQ(request.header.bodyLength, 16U + 512U);
        peer.Succeed(request);
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    client.TransferOut(7, MakeBytes({0x0A}), Pattern(512), kDeadline);
}

TEST(ClientTransfer, NoDataThatFails) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        EXPECT_EQ(request.header.messageType, 4U);
        EXPECT_EQ(request.body, Bytes(16));
        peer.Refuse(request);
        peer.Succeed(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline); }),
              ErrorKind::kRefused);
    client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline);
}

TEST(ClientTransfer, AnswersInAnyOrderFindTheirRequests) {
    constexpr std::size_t kCount = 50;
    FakeService service([](Peer& peer) {
        peer.Welcome({1, 2});
        std::vector<Request> requests;
        for (std::size_t i = 0; i < kCount; ++i)
            requests.push_back(peer.ReadRequest());
        std::shuffle(requests.begin(), requests.end(), std::mt19937(1));
        for (const Request& request : requests)
            peer.Succeed(request, {request.body[1], request.body[2]});
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    std::array<Answer, kCount> answers;
    for (unsigned i = 0; i < kCount; ++i)
        client.StartTransferIn(1 + i % 2, MakeBytes({8, i, i ^ 0x55}), answers[i].Completion());
    for (unsigned i = 0; i < kCount; ++i)
        EXPECT_EQ(answers[i].Data(), MakeBytes({i, i ^ 0x55})) << i;
}

TEST(ClientTransfer, MessageThatArrivesByteByByteIsReassembled) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        Bytes answer = HeaderBytes({kTransferSucceeded, request.header.requestId, 7, 5});
        for (unsigned value = 1; value <= 5; ++value)
            answer.push_back(static_cast<std::byte>(value));
        for (const std::byte value : answer)
            peer.Send(Bytes{value});
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kDeadline), MakeBytes({1, 2, 3, 4, 5}));
}

TEST(ClientArguments, MoreThan64KibAreRefusedUnlessTheProgramSetsAGreaterLimit) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        EXPECT_EQ(request.body.size(), kCdbFieldSize + 65'536) << "another request was sent before";
        peer.Succeed(request);
        peer.ReadToTheEnd();
    });
    orvik::ConnectOptions options;
    options.timeout = kDeadline;
    options.checkServer = false;
    options.pipe = service.Name();
    orvik::Client client(options);
    const Bytes data(65'537);
    const auto error = ErrorOf([&] { client.TransferOut(7, MakeBytes({0x0A}), data, kDeadline); });
    EXPECT_EQ(error.Kind(), ErrorKind::kBadArgument);
    EXPECT_NE(std::string(error.what()).find("set ConnectOptions::transferOutLimit"),
              std::string::npos)
        << error.what();
    client.TransferOut(7, MakeBytes({0x0A}), std::span(data).first(65'536), kDeadline);
}

TEST(ClientArguments, InvalidOnesAreRefusedBeforeAnythingIsSent) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        EXPECT_EQ(request.body.at(0), std::byte{0x5A}) << "another request was sent before";
        peer.Succeed(request);
        EXPECT_TRUE(peer.ReadToTheEnd().empty());
    });
    Client client(kDeadline, service.Name());
    const Bytes one(1);
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, Bytes(), kDeadline); }),
              ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, Bytes(9), kDeadline); }),
              ErrorKind::kBadArgument);
    const std::span<const std::byte> tooLong(one.data(), orvik::kTransferOutLimit + 1);
    EXPECT_EQ(KindOf([&] { client.TransferOut(7, one, tooLong, kDeadline); }),
              ErrorKind::kBadArgument);
    for (const orvik::CameraId camera : {0U, 6U, 8U, 0xFFFFFFFFU})
        EXPECT_EQ(KindOf([&] { client.TransferNoData(camera, one, kDeadline); }),
                  ErrorKind::kNoSuchCamera);
    EXPECT_EQ(KindOf([&] { client.StartTransferNoData(7, one, nullptr); }),
              ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([&] { client.StartTransferNoData(8, one, Answer().Completion()); }),
              ErrorKind::kNoSuchCamera);
    EXPECT_EQ(KindOf([&] { client.StartTransferNoData(7, Bytes(9), Answer().Completion()); }),
              ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([&] { static_cast<void>(client.Subscribe(nullptr)); }),
              ErrorKind::kBadArgument);
    client.TransferNoData(7, MakeBytes({0x5A}), kDeadline);
}

TEST(ClientCameras, FollowTheNotifications) {
    Signal goOn;
    Signal reported;
    FakeService service([&](Peer& peer) {
        peer.Welcome({1, 2});
        EXPECT_TRUE(goOn.Wait());
        peer.Announce(9);
        peer.Announce(9);
        peer.Send({kCameraDetached, kNotificationId, 1, 0});
        reported.Set();
        peer.Succeed(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    Signal busy;
    Signal done;
    Client client(kDeadline, service.Name());
    std::once_flag once;
    const orvik::Subscription subscription = client.Subscribe([&](const orvik::Event&) {
        std::call_once(once, [&] {
            busy.Set();
            EXPECT_TRUE(done.Wait());
        });
    });
    ASSERT_TRUE(busy.Wait());
    goOn.Set();
    ASSERT_TRUE(reported.Wait());
    // Reported before the request is sent, so refused, although no thread has had the time to read
    // it.
    EXPECT_EQ(KindOf([&] { client.TransferNoData(1, orvik::TestUnitReadyCdb(), kDeadline); }),
              ErrorKind::kNoSuchCamera);
    EXPECT_EQ(client.Cameras(), (std::vector<orvik::CameraId>{2, 9}));
    client.TransferNoData(9, orvik::TestUnitReadyCdb(), kDeadline);
    done.Set();
}

TEST(ClientRoundTrip, ReturnsWithItsAnswerWhileACommandIsOutstanding) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request command = peer.ReadRequest();
        peer.Refuse(peer.ReadRequest());
        peer.Refuse(peer.ReadRequest());
        peer.Succeed(command, MakeBytes({1}));
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    Answer answer;
    client.StartTransferIn(7, orvik::InquiryCdb(), answer.Completion());
    client.RoundTrip(kDeadline);
    client.RoundTrip(kDeadline);
    EXPECT_EQ(answer.Data(), MakeBytes({1}));
    EXPECT_EQ(KindOf([&] { client.RoundTrip(50ms); }), ErrorKind::kTimedOut);
}

TEST(ClientRequestIds, AreNeitherTakenNorThatOfNotifications) {
    const std::set<orvik::RequestId> taken{0xFFFFFFFE, 0, 1, 3};
    EXPECT_EQ(orvik::NextRequestId(1, taken), 2U);
    EXPECT_EQ(orvik::NextRequestId(2, taken), 4U);
    EXPECT_EQ(orvik::NextRequestId(0xFFFFFFFD, taken), 2U);
    EXPECT_EQ(orvik::NextRequestId(0xFFFFFFFF, taken), 2U);
}

TEST(ClientCancel, EndsTheRequestAndDropsItsAnswer) {
    FakeService service(AnswerTwoRequestsTogether);
    Client client(kDeadline, service.Name());
    Answer cancelled;
    const orvik::RequestId id =
        client.StartTransferIn(7, orvik::InquiryCdb(), cancelled.Completion());
    EXPECT_TRUE(client.Cancel(id));
    EXPECT_FALSE(client.Cancel(id));
    EXPECT_EQ(KindOf([&] { cancelled.Data(); }), ErrorKind::kCancelled);
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kDeadline), MakeBytes({2}));
    EXPECT_FALSE(client.Cancel(id));
    EXPECT_FALSE(client.Cancel(12345));
}

}  // namespace
