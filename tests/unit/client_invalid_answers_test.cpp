// A service that sends invalid messages.

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_of_fake_service.h"
#include "orvik/client.h"
#include "protocol/message.h"
#include "support/client_results.h"
#include "support/fake_service.h"
#include "support/messages.h"

namespace {

using client_test::Answer;
using client_test::Client;
using client_test::ErrorOf;
using client_test::FakeService;
using client_test::KindOf;
using client_test::Peer;
using client_test::Request;
using orvik::ErrorKind;

/// An invalid answer to request `id`, a command without data for camera 7.
struct InvalidAnswer {
    const char* name;
    MessageHeader (*answer)(std::uint32_t id);
};

class ClientInvalidAnswer : public testing::TestWithParam<InvalidAnswer> {};

TEST_P(ClientInvalidAnswer, IsReportedAndClosesTheConnection) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        const MessageHeader answer = GetParam().answer(request.header.requestId);
        peer.Send(answer, Bytes(std::min(answer.bodyLength, 1U)));
        EXPECT_TRUE(peer.ReadToTheEnd().empty());
    });
    Client client(kDeadline, service.Name());
    const auto error =
        ErrorOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline); });
    EXPECT_EQ(error.Kind(), ErrorKind::kBadAnswer) << error.what();
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline); }),
              ErrorKind::kServiceGone);
}

constexpr InvalidAnswer kInvalidAnswers[] = {
    {"WrongId",
     [](std::uint32_t id) {
         return MessageHeader{kTransferSucceeded, id + 1, 7, 0};
     }},
    {"IdOfAnOldRequest",
     [](std::uint32_t id) {
         return MessageHeader{kTransferFailed, id - 1, 0, 0};
     }},
    {"WrongCamera",
     [](std::uint32_t id) {
         return MessageHeader{kTransferSucceeded, id, 8, 0};
     }},
    {"DataThatWasNotAskedFor",
     [](std::uint32_t id) {
         return MessageHeader{kTransferSucceeded, id, 7, 1};
     }},
    {"BodyLongerThanAnyAnswer",
     [](std::uint32_t id) {
         return MessageHeader{kTransferSucceeded, id, 7, 65537};
     }},
    {"BodyOfFourGigabytes",
     [](std::uint32_t id) {
         return MessageHeader{kTransferSucceeded, id, 7, 0xFFFFFFFF};
     }},
    {"FailureWithABody",
     [](std::uint32_t id) {
         return MessageHeader{kTransferFailed, id, 7, 1};
     }},
    {"TypeZero",
     [](std::uint32_t id) {
         return MessageHeader{0, id, 7, 0};
     }},
    {"TypeSix",
     [](std::uint32_t id) {
         return MessageHeader{6, id, 7, 0};
     }},
    {"NotificationWithABody",
     [](std::uint32_t) {
         return MessageHeader{kCameraAttached, kNotificationId, 7, 1};
     }},
    {"NotificationWithARequestId",
     [](std::uint32_t id) {
         return MessageHeader{kCameraDetached, id, 7, 0};
     }},
};

INSTANTIATE_TEST_SUITE_P(All, ClientInvalidAnswer, testing::ValuesIn(kInvalidAnswers),
                         [](const auto& answer) { return std::string(answer.param.name); });

TEST(ClientInvalidMessages, SecondAnswerToOneRequest) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request first = peer.ReadRequest();
        peer.ReadRequest();
        peer.Succeed(first);
        peer.Succeed(first);
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    Answer first;
    Answer second;
    client.StartTransferNoData(7, orvik::TestUnitReadyCdb(), first.Completion());
    client.StartTransferNoData(7, orvik::TestUnitReadyCdb(), second.Completion());
    first.Data();
    EXPECT_EQ(KindOf([&] { second.Data(); }), ErrorKind::kBadAnswer);
}

TEST(ClientInvalidMessages, DataInTheAnswerToACommandThatSendsData) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        peer.Send(MessageHeader{kTransferSucceeded, request.header.requestId, 7, 1}, Bytes(1));
        peer.ReadToTheEnd();
    });
    Client client(kDeadline, service.Name());
    EXPECT_EQ(
        KindOf([&] { client.TransferOut(7, orvik::TestUnitReadyCdb(), Bytes(4), kDeadline); }),
        ErrorKind::kBadAnswer);
}

TEST(ClientInvalidMessages, SuccessInsteadOfTheRefusalOfARoundTrip) {
    FakeService service([](Peer& peer) {
        peer.Succeed(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    EXPECT_EQ(KindOf([&] { Client(kDeadline, service.Name()); }), ErrorKind::kBadAnswer);
}

TEST(ClientInvalidMessages, RandomMessagesEndInAnError) {
    std::mt19937 random(20'24);
    for (int round = 0; round < 200; ++round) {
        // About half of the fields are valid, so that messages pass the first checks.
        Bytes garbage;
        for (int message = 0; message < 20; ++message) {
            const auto pick = [&](std::initializer_list<std::uint32_t> values) {
                return random() % 2 == 0 ? *(values.begin() + random() % values.size())
                                         : static_cast<std::uint32_t>(random());
            };
            const Bytes header = HeaderBytes({pick({2, 3, 4, 5}), pick({0, 1, kNotificationId}),
                                              pick({0, 7}), pick({0, 0, 1, 16, 65536})});
            garbage.insert(garbage.end(), header.begin(), header.end());
        }
        FakeService service([&](Peer& peer) { peer.Send(garbage); });
        try {
            Client client(kDeadline, service.Name());
            for (const orvik::CameraId camera : client.Cameras())
                client.TransferNoData(camera, orvik::TestUnitReadyCdb(), kDeadline);
        } catch (const orvik::Error& error) {
            EXPECT_TRUE(error.Kind() == ErrorKind::kBadAnswer ||
                        error.Kind() == ErrorKind::kServiceGone ||
                        error.Kind() == ErrorKind::kNoSuchCamera)
                << error.what();
        }
    }
}

}  // namespace
