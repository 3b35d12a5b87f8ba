// The client library against a service of the test's own, which can lie.

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client/request_id.h"
#include "client_answers.h"
#include "fake_service.h"
#include "import_hook.h"
#include "orvik/client.h"
#include "protocol/message.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::OpenServiceW) __imp_OpenServiceW;
extern decltype(&::ReadFile) __imp_ReadFile;
extern decltype(&::WaitNamedPipeW) __imp_WaitNamedPipeW;
extern decltype(&::WriteFile) __imp_WriteFile;
}

namespace {

using namespace std::chrono_literals;
using client_test::Answer;
using client_test::Bytes;
using client_test::BytesOf;
using client_test::ErrorOf;
using client_test::EventLog;
using client_test::FakeService;
using client_test::Happening;
using client_test::kGenerous;
using client_test::KindOf;
using client_test::Peer;
using client_test::Request;
using orvik::ErrorKind;

Bytes MakeBytes(std::initializer_list<unsigned> values) {
    Bytes bytes;
    for (const unsigned value : values)
        bytes.push_back(static_cast<std::byte>(value));
    return bytes;
}

Bytes Pattern(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::byte>(i * 7 + i / 251);
    return bytes;
}

/// A client of a pipe that no service of the control manager serves.
class Client : public orvik::Client {
public:
    Client(std::chrono::milliseconds timeout, const std::wstring& pipe)
        : orvik::Client(orvik::ConnectOptions{timeout, false, pipe}) {}
};

TEST(ClientConnect, KnowsTheCamerasPresent) {
    FakeService service([](Peer& peer) {
        peer.Announce(3);
        peer.Announce(1);
        const Request roundTrip = peer.ReadRequest();
        EXPECT_EQ(roundTrip.header.messageType, 4U);
        EXPECT_EQ(roundTrip.header.bodyLength, 0U);
        peer.Refuse(roundTrip);
        peer.ReadToTheEnd();
    });
    const Client client(kGenerous, service.Name());
    EXPECT_EQ(client.Cameras(), (std::vector<orvik::CameraId>{3, 1}));
}

TEST(ClientConnect, NoSuchPipe) {
    const auto error = ErrorOf([] { Client(1s, LR"(\\.\pipe\orvik-client-test-none)"); });
    EXPECT_EQ(error.Kind(), ErrorKind::kStopped) << error.what();
    EXPECT_EQ(error.SystemCode(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_NE(std::string(error.what()).find("(error 2)"), std::string::npos) << error.what();
}

TEST(ClientConnect, EveryInstanceTakenUntilTheDeadline) {
    const wchar_t name[] = LR"(\\.\pipe\orvik-client-test-busy)";
    const UniqueHandle instance = OwnFile(
        ::CreateNamedPipeW(name, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 65536, 65536, 0, nullptr));
    ASSERT_TRUE(instance);
    const UniqueHandle other = OwnFile(
        ::CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(other);
    const auto error = ErrorOf([&] { Client(100ms, name); });
    EXPECT_EQ(error.Kind(), ErrorKind::kBusy) << error.what();
    EXPECT_EQ(error.SystemCode(), DWORD{ERROR_PIPE_BUSY});
}

TEST(ClientConnect, WaitsForAnInstance) {
    Happening busy;
    Happening free;
    FakeService service([](Peer& peer) { peer.ReadToTheEnd(); },
                        [&](int number) {
                            if (number == 1) {
                                busy.Set();
                                free.Wait();
                            }
                        });
    const UniqueHandle other =
        OwnFile(::CreateFileW(service.Name().c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                              OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(busy.Wait());
    Happening waiting;
    using Wait = HookedImport<&__imp_WaitNamedPipeW>;
    const Wait hook([&](const wchar_t* name, DWORD milliseconds) {
        waiting.Set();
        return Wait::Original(name, milliseconds);
    });
    // The second client gets no answer, but a connection.
    auto kind = std::async(std::launch::async,
                           [&] { return KindOf([&] { Client(500ms, service.Name()); }); });
    EXPECT_TRUE(waiting.Wait());
    free.Set();
    EXPECT_EQ(kind.get(), ErrorKind::kTimedOut);
    EXPECT_GE(service.Connections(), 2);
}

TEST(ClientConnect, ServiceThatIsSilent) {
    FakeService service([](Peer& peer) { peer.ReadToTheEnd(); });
    EXPECT_EQ(KindOf([&] { Client(100ms, service.Name()); }), ErrorKind::kTimedOut);
}

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
    Client client(kGenerous, service.Name());
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kGenerous), data);
}

TEST(ClientTransfer, OutSendsTheDataBehindThePaddedCdb) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        EXPECT_EQ(request.header.messageType, 2U);
        EXPECT_EQ(request.body, MakeBytes({0x0A, 1, 2, 3, 4, 5, 6, 7, 0, 0, 0, 0, 0, 0, 0, 0,  //
                                           0xAA, 0xBB, 0xCC}));
        peer.Succeed(request);
        peer.ReadToTheEnd();
    });
    Client client(kGenerous, service.Name());
    client.TransferOut(7, MakeBytes({0x0A, 1, 2, 3, 4, 5, 6, 7}), MakeBytes({0xAA, 0xBB, 0xCC}),
                       kGenerous);
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
    Client client(kGenerous, service.Name());
    client.TransferOut(7, MakeBytes({0x0A}), data, kGenerous);
}

TEST(ClientTransfer, ARequestLeavesInOnePiece) {
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
    Client client(kGenerous, service.Name());
    client.TransferOut(7, MakeBytes({0x0A}), Pattern(512), kGenerous);
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
    Client client(kGenerous, service.Name());
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kGenerous); }),
              ErrorKind::kRefused);
    client.TransferNoData(7, orvik::TestUnitReadyCdb(), kGenerous);
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
    Client client(kGenerous, service.Name());
    std::array<Answer, kCount> answers;
    for (unsigned i = 0; i < kCount; ++i)
        client.StartTransferIn(1 + i % 2, MakeBytes({8, i, i ^ 0x55}), answers[i].Completion());
    for (unsigned i = 0; i < kCount; ++i)
        EXPECT_EQ(answers[i].Data(), MakeBytes({i, i ^ 0x55})) << i;
}

TEST(ClientTransfer, AMessageInPiecesIsPutTogether) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        Bytes answer = BytesOf({kTransferSucceeded, request.header.requestId, 7, 5});
        for (unsigned value = 1; value <= 5; ++value)
            answer.push_back(static_cast<std::byte>(value));
        for (const std::byte value : answer)
            peer.Send(Bytes{value});
        peer.ReadToTheEnd();
    });
    Client client(kGenerous, service.Name());
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kGenerous), MakeBytes({1, 2, 3, 4, 5}));
}

TEST(ClientRefuses, WhatWouldHarmBeforeAnythingIsSent) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        EXPECT_EQ(request.body.at(0), std::byte{0x5A}) << "something else was sent before";
        peer.Succeed(request);
        EXPECT_TRUE(peer.ReadToTheEnd().empty());
    });
    Client client(kGenerous, service.Name());
    const Bytes one(1);
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, Bytes(), kGenerous); }),
              ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, Bytes(9), kGenerous); }),
              ErrorKind::kBadArgument);
    const std::span<const std::byte> tooLong(one.data(), orvik::kTransferOutLimit + 1);
    EXPECT_EQ(KindOf([&] { client.TransferOut(7, one, tooLong, kGenerous); }),
              ErrorKind::kBadArgument);
    for (const orvik::CameraId camera : {0U, 6U, 8U, 0xFFFFFFFFU})
        EXPECT_EQ(KindOf([&] { client.TransferNoData(camera, one, kGenerous); }),
                  ErrorKind::kNoSuchCamera);
    EXPECT_EQ(KindOf([&] { client.StartTransferNoData(7, one, nullptr); }),
              ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([&] { client.StartTransferNoData(8, one, Answer().Completion()); }),
              ErrorKind::kNoSuchCamera);
    EXPECT_EQ(KindOf([&] { client.StartTransferNoData(7, Bytes(9), Answer().Completion()); }),
              ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([&] { static_cast<void>(client.Subscribe(nullptr)); }),
              ErrorKind::kBadArgument);
    client.TransferNoData(7, MakeBytes({0x5A}), kGenerous);
}

TEST(ClientCameras, FollowTheNotifications) {
    Happening goOn;
    Happening reported;
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
    Happening busy;
    Happening done;
    Client client(kGenerous, service.Name());
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
    // Reported before the request is sent, so refused, though nobody has had the time to read it.
    EXPECT_EQ(KindOf([&] { client.TransferNoData(1, orvik::TestUnitReadyCdb(), kGenerous); }),
              ErrorKind::kNoSuchCamera);
    EXPECT_EQ(client.Cameras(), (std::vector<orvik::CameraId>{2, 9}));
    client.TransferNoData(9, orvik::TestUnitReadyCdb(), kGenerous);
    done.Set();
}

TEST(ClientRoundTrip, ReturnsWithTheAnswerAndIsNotPutOffByACamera) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request command = peer.ReadRequest();
        peer.Refuse(peer.ReadRequest());
        peer.Refuse(peer.ReadRequest());
        peer.Succeed(command, MakeBytes({1}));
        peer.ReadToTheEnd();
    });
    Client client(kGenerous, service.Name());
    Answer answer;
    client.StartTransferIn(7, orvik::InquiryCdb(), answer.Completion());
    client.RoundTrip(kGenerous);
    client.RoundTrip(kGenerous);
    EXPECT_EQ(answer.Data(), MakeBytes({1}));
    EXPECT_EQ(KindOf([&] { client.RoundTrip(50ms); }), ErrorKind::kTimedOut);
}

TEST(ClientDeadline, AnAnswerNobodyWaitsForIsDropped) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request first = peer.ReadRequest();
        const Request second = peer.ReadRequest();
        peer.Succeed(first, MakeBytes({1}));
        peer.Succeed(second, MakeBytes({2}));
        peer.ReadToTheEnd();
    });
    Client client(kGenerous, service.Name());
    EXPECT_EQ(KindOf([&] { client.TransferIn(7, orvik::InquiryCdb(), 50ms); }),
              ErrorKind::kTimedOut);
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kGenerous), MakeBytes({2}));
}

TEST(ClientDeadline, AServiceThatDoesNotReadEndsTheConnection) {
    Happening done;
    FakeService service([&](Peer& peer) {
        peer.Welcome({7});
        EXPECT_TRUE(done.Wait());
    });
    Client client(kGenerous, service.Name());
    const Bytes data(1 << 20);
    EXPECT_EQ(KindOf([&] { client.TransferOut(7, MakeBytes({0x0A}), data, 100ms); }),
              ErrorKind::kTimedOut);
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kGenerous); }),
              ErrorKind::kServiceGone);
    done.Set();
}

/// A service that sends notifications without end, to a client on a machine so slow that each read
/// takes a millisecond: what the pipe holds at once, 4096 messages, takes the client four seconds.
class EndlessService {
public:
    EndlessService()
        : service([this](Peer& peer) {
              peer.Welcome({1});
              Bytes notifications;
              for (int i = 0; i < 2048; ++i) {
                  for (const std::uint32_t type : {kCameraAttached, kCameraDetached}) {
                      const Bytes header = BytesOf({type, kNotificationId, 1, 0});
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
    void Stop() { stopping = true; }

    /// Waits until the client has begun that many reads since Begin().
    bool WaitForReads(int count) {
        for (const auto end = std::chrono::steady_clock::now() + kGenerous; reads < count;) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            ::Sleep(1);
        }
        return true;
    }

    /// Runs `call`, and returns how long it took. Ends the stream if it takes very long.
    template <typename Call>
    std::chrono::milliseconds TimeOf(Call call) {
        const auto start = std::chrono::steady_clock::now();
        auto ended = std::async(std::launch::async, std::move(call));
        if (ended.wait_for(10s) != std::future_status::ready) {
            ADD_FAILURE() << "the call ends only with the service";
            Stop();
        }
        ended.get();
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start);
    }

private:
    using Read = HookedImport<&__imp_ReadFile>;

    std::atomic<bool> slow{false};
    std::atomic<int> reads{0};
    std::atomic<bool> stopping{false};
    Happening begin;
    const Read read{
        [this](HANDLE file, void* target, DWORD size, DWORD* count, OVERLAPPED* overlapped) {
            if (slow) {
                ++reads;
                ::Sleep(1);
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
    Client client(kGenerous, service.Name());
    const auto log = std::make_shared<EventLog>();
    const orvik::Subscription subscription = client.Subscribe(HandlerOf(log));
    service.Begin();
    log->WaitForMore(0);
    const auto time = service.TimeOf(
        [&] { EXPECT_EQ(KindOf([&] { client.RoundTrip(200ms); }), ErrorKind::kTimedOut); });
    EXPECT_LT(time, 1s);
    service.Stop();
}

TEST(ClientDeadline, HoldsWhileAnotherThreadReadsWhatAServiceSendsWithoutEnd) {
    EndlessService service;
    Client client(kGenerous, service.Name());
    service.Begin();
    auto other =
        std::async(std::launch::async, [&] { return KindOf([&] { client.RoundTrip(1500ms); }); });
    ASSERT_TRUE(service.WaitForReads(100));
    const auto time = service.TimeOf(
        [&] { EXPECT_EQ(KindOf([&] { client.RoundTrip(200ms); }), ErrorKind::kTimedOut); });
    EXPECT_LT(time, 1s);
    EXPECT_EQ(other.get(), ErrorKind::kTimedOut);
    service.Stop();
}

TEST(ClientDeadline, DestructorTakesAtMostTwoSecondsWhileAServiceSendsWithoutEnd) {
    EndlessService service;
    auto client = std::make_unique<Client>(kGenerous, service.Name());
    const auto log = std::make_shared<EventLog>();
    const orvik::Subscription subscription = client->Subscribe(HandlerOf(log));
    // With a request outstanding the destructor waits for an answer, which never comes.
    client->StartTransferNoData(1, orvik::TestUnitReadyCdb(), [](const orvik::TransferResult&) {});
    service.Begin();
    log->WaitForMore(0);
    const auto time = service.TimeOf([&] { client.reset(); });
    EXPECT_LT(time, 3s);  // a second for a machine that is busy
}

TEST(ClientServiceGone, WhileIdle) {
    FakeService service([](Peer& peer) { peer.Welcome({7}); });
    Client client(kGenerous, service.Name());
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kGenerous); }),
              ErrorKind::kServiceGone);
}

TEST(ClientServiceGone, EndsEveryRequestButThoseAnswered) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.ReadRequest();
        const Request second = peer.ReadRequest();
        peer.ReadRequest();
        peer.Succeed(second, MakeBytes({2}));
    });
    Client client(kGenerous, service.Name());
    std::array<Answer, 3> answers;
    for (Answer& answer : answers)
        client.StartTransferIn(7, orvik::InquiryCdb(), answer.Completion());
    EXPECT_EQ(KindOf([&] { answers[0].Data(); }), ErrorKind::kServiceGone);
    EXPECT_EQ(answers[1].Data(), MakeBytes({2}));
    EXPECT_EQ(KindOf([&] { answers[2].Data(); }), ErrorKind::kServiceGone);
}

TEST(ClientServiceGone, UnderSeveralWritesThatAreUnderWay) {
    constexpr int kWrites = 3;
    constexpr std::size_t kLength = 1 << 20;
    std::atomic<int> started{0};
    Happening allStarted;
    FakeService service([&](Peer& peer) {
        peer.Welcome({7});
        EXPECT_TRUE(allStarted.Wait());  // and none can end, as nobody reads
    });
    Client client(kGenerous, service.Name());
    using Write = HookedImport<&__imp_WriteFile>;
    const Write write(
        [&](HANDLE file, const void* bytes, DWORD size, DWORD* count, OVERLAPPED* overlapped) {
            const BOOL done = Write::Original(file, bytes, size, count, overlapped);
            const DWORD code = ::GetLastError();
            if (size > kLength && ++started == kWrites)
                allStarted.Set();
            ::SetLastError(code);
            return done;
        });
    std::vector<std::future<ErrorKind>> kinds;
    for (int number = 0; number < kWrites; ++number)
        kinds.push_back(std::async(std::launch::async, [&] {
            return KindOf(
                [&] { client.TransferOut(7, orvik::Write6Cdb(0, 1), Bytes(kLength), kGenerous); });
        }));
    for (auto& kind : kinds)
        EXPECT_EQ(kind.get(), ErrorKind::kServiceGone);
}

TEST(ClientServiceGone, InTheMiddleOfAMessage) {
    for (const std::size_t bytes : {1U, 15U, 16U, 17U, 19U}) {
        FakeService service([&](Peer& peer) {
            peer.Welcome({7});
            const Request request = peer.ReadRequest();
            Bytes answer = BytesOf({kTransferSucceeded, request.header.requestId, 7, 4});
            answer.resize(20);
            answer.resize(bytes);
            peer.Send(answer);
        });
        Client client(kGenerous, service.Name());
        const auto error = ErrorOf([&] { client.TransferIn(7, orvik::InquiryCdb(), kGenerous); });
        EXPECT_EQ(error.Kind(), ErrorKind::kServiceGone) << error.what();
        EXPECT_NE(std::string(error.what()).find("in the middle"), std::string::npos)
            << error.what();
    }
}

/// What a lying service answers to request `id`, a command without data to camera 7.
struct Lie {
    const char* name;
    MessageHeader (*answer)(std::uint32_t id);
};

class ClientLiedTo : public testing::TestWithParam<Lie> {};

TEST_P(ClientLiedTo, SaysSoAndClosesTheConnection) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        const MessageHeader answer = GetParam().answer(request.header.requestId);
        peer.Send(answer, Bytes(std::min(answer.bodyLength, 1U)));
        EXPECT_TRUE(peer.ReadToTheEnd().empty());
    });
    Client client(kGenerous, service.Name());
    const auto error =
        ErrorOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kGenerous); });
    EXPECT_EQ(error.Kind(), ErrorKind::kBadAnswer) << error.what();
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kGenerous); }),
              ErrorKind::kServiceGone);
}

constexpr Lie kLies[] = {
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

INSTANTIATE_TEST_SUITE_P(All, ClientLiedTo, testing::ValuesIn(kLies),
                         [](const auto& lie) { return std::string(lie.param.name); });

TEST(ClientLied, TheSameAnswerTwice) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request first = peer.ReadRequest();
        peer.ReadRequest();
        peer.Succeed(first);
        peer.Succeed(first);
        peer.ReadToTheEnd();
    });
    Client client(kGenerous, service.Name());
    Answer first;
    Answer second;
    client.StartTransferNoData(7, orvik::TestUnitReadyCdb(), first.Completion());
    client.StartTransferNoData(7, orvik::TestUnitReadyCdb(), second.Completion());
    first.Data();
    EXPECT_EQ(KindOf([&] { second.Data(); }), ErrorKind::kBadAnswer);
}

TEST(ClientLied, TheRoundTripSucceeds) {
    FakeService service([](Peer& peer) {
        peer.Succeed(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    EXPECT_EQ(KindOf([&] { Client(kGenerous, service.Name()); }), ErrorKind::kBadAnswer);
}

TEST(ClientLied, GarbageEndsInAnErrorAndNeverHangs) {
    std::mt19937 random(20'24);
    for (int round = 0; round < 200; ++round) {
        // Half of the messages look right in some of their fields, so that more than the first
        // check is met.
        Bytes garbage;
        for (int message = 0; message < 20; ++message) {
            const auto pick = [&](std::initializer_list<std::uint32_t> values) {
                return random() % 2 == 0 ? *(values.begin() + random() % values.size())
                                         : static_cast<std::uint32_t>(random());
            };
            const Bytes header = BytesOf({pick({2, 3, 4, 5}), pick({0, 1, kNotificationId}),
                                          pick({0, 7}), pick({0, 0, 1, 16, 65536})});
            garbage.insert(garbage.end(), header.begin(), header.end());
        }
        FakeService service([&](Peer& peer) { peer.Send(garbage); });
        try {
            Client client(kGenerous, service.Name());
            for (const orvik::CameraId camera : client.Cameras())
                client.TransferNoData(camera, orvik::TestUnitReadyCdb(), kGenerous);
        } catch (const orvik::Error& error) {
            EXPECT_TRUE(error.Kind() == ErrorKind::kBadAnswer ||
                        error.Kind() == ErrorKind::kServiceGone ||
                        error.Kind() == ErrorKind::kNoSuchCamera)
                << error.what();
        }
    }
}

TEST(ClientConnect, APipeThatMayNotBeOpened) {
    // Whoever opens this one may not write, and a client asks to.
    const wchar_t name[] = LR"(\\.\pipe\orvik-client-test-denied)";
    const UniqueHandle instance = OwnFile(::CreateNamedPipeW(
        name, PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 65536, 65536, 0, nullptr));
    ASSERT_TRUE(instance);
    const auto error = ErrorOf([&] { Client(kGenerous, name); });
    EXPECT_EQ(error.Kind(), ErrorKind::kAccessDenied) << error.what();
    EXPECT_EQ(error.SystemCode(), DWORD{ERROR_ACCESS_DENIED});
}

TEST(ClientConnect, AServerThatIsNotTheServiceGetsNoByte) {
    FakeService service([](Peer& peer) { EXPECT_TRUE(peer.ReadToTheEnd().empty()); });
    orvik::ConnectOptions options;
    options.pipe = service.Name();
    const auto error = ErrorOf([&] { orvik::Client client(options); });
    EXPECT_EQ(error.Kind(), ErrorKind::kWrongServer) << error.what();
    EXPECT_NE(std::string(error.what()).find(std::to_string(::GetCurrentProcessId())),
              std::string::npos)
        << error.what();
    // It may be a service in a console, so it is left politely.
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientConnect, AUserWhoMayNotAskForTheServiceLeavesItPolitely) {
    FakeService service([](Peer& peer) { EXPECT_TRUE(peer.ReadToTheEnd().empty()); });
    orvik::ConnectOptions options;
    options.pipe = service.Name();
    const HookedImport<&__imp_OpenServiceW> open([](SC_HANDLE, const wchar_t*, DWORD) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return SC_HANDLE{};
    });
    const auto error = ErrorOf([&] { orvik::Client client(options); });
    EXPECT_EQ(error.Kind(), ErrorKind::kAccessDenied) << error.what();
    EXPECT_EQ(error.SystemCode(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientConnect, AServerThatEndsWhileItIsLookedAtIsNotTheWrongOne) {
    Peer* first = nullptr;
    Happening connected;
    Happening closed;
    FakeService service(
        [&](Peer& peer) {
            first = &peer;
            connected.Set();
            EXPECT_TRUE(closed.Wait());
        },
        [&](int number) {
            if (number != 2)
                return;
            EXPECT_TRUE(connected.Wait());
            first->Close();
            closed.Set();
        });
    orvik::ConnectOptions options;
    options.pipe = service.Name();
    EXPECT_EQ(KindOf([&] { orvik::Client client(options); }), ErrorKind::kNotInstalled);
}

TEST(ClientConnect, TheServerMayLearnWhoTheClientIsAndNotActForIt) {
    FakeService service([](Peer& peer) {
        peer.Welcome({});
        peer.ReadToTheEnd();
    });
    std::vector<DWORD> flags;
    {
        using Create = HookedImport<&__imp_CreateFileW>;
        const Create create([&](const wchar_t* name, DWORD access, DWORD share,
                                SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD attributes,
                                HANDLE like) {
            if (name == service.Name())
                flags.push_back(attributes & SECURITY_VALID_SQOS_FLAGS);
            return Create::Original(name, access, share, security, disposition, attributes, like);
        });
        const Client client(kGenerous, service.Name());
    }
    // To use it, and to leave it.
    EXPECT_EQ(flags, std::vector<DWORD>(2, DWORD{SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION}));
}

TEST(ClientRequestIds, AreNeitherTakenNorThatOfNotifications) {
    const std::set<orvik::RequestId> taken{0xFFFFFFFE, 0, 1, 3};
    EXPECT_EQ(orvik::NextRequestId(1, taken), 2U);
    EXPECT_EQ(orvik::NextRequestId(2, taken), 4U);
    EXPECT_EQ(orvik::NextRequestId(0xFFFFFFFD, taken), 2U);
    EXPECT_EQ(orvik::NextRequestId(0xFFFFFFFF, taken), 2U);
}

TEST(ClientCancel, EndsTheRequestAndDropsItsAnswer) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        const Request first = peer.ReadRequest();
        const Request second = peer.ReadRequest();
        peer.Succeed(first, MakeBytes({1}));
        peer.Succeed(second, MakeBytes({2}));
        peer.ReadToTheEnd();
    });
    Client client(kGenerous, service.Name());
    Answer cancelled;
    const orvik::RequestId id =
        client.StartTransferIn(7, orvik::InquiryCdb(), cancelled.Completion());
    EXPECT_TRUE(client.Cancel(id));
    EXPECT_FALSE(client.Cancel(id));
    EXPECT_EQ(KindOf([&] { cancelled.Data(); }), ErrorKind::kCancelled);
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kGenerous), MakeBytes({2}));
    EXPECT_FALSE(client.Cancel(id));
    EXPECT_FALSE(client.Cancel(12345));
}

TEST(ClientEvents, BeginWithTheCamerasPresentAndEndWithTheService) {
    Happening subscribed;
    FakeService service([&](Peer& peer) {
        peer.Welcome({3, 1});
        EXPECT_TRUE(subscribed.Wait());
        peer.Announce(9);
        peer.Announce(9);
        peer.Send({kCameraDetached, kNotificationId, 3, 0});
        peer.Send({kCameraDetached, kNotificationId, 4, 0});
    });
    Client client(kGenerous, service.Name());
    EventLog log;
    EventLog later;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    EXPECT_EQ(log.WaitFor(2), (std::vector<std::string>{"+3", "+1"}));
    subscribed.Set();
    EXPECT_EQ(log.WaitFor(5), (std::vector<std::string>{"+3", "+1", "+9", "-3", "gone"}));
    const orvik::Subscription tooLate = client.Subscribe(later.Handler());
    EXPECT_EQ(later.WaitFor(1), (std::vector<std::string>{"gone"}));
    EXPECT_EQ(KindOf([&] { client.Cameras(); }), ErrorKind::kServiceGone);
}

TEST(ClientEvents, NoCallBeginsOnceASubscriptionHasEnded) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    std::atomic<bool> stop{false};
    EventLog all;
    Happening subscribed;
    Happening lastSent;
    FakeService service([&](Peer& peer) {
        peer.Welcome({});
        EXPECT_TRUE(subscribed.Wait());
        for (std::uint32_t camera = 1; !stop; ++camera) {
            const std::size_t count = all.Count();
            peer.Announce(camera);
            peer.Send({kCameraDetached, kNotificationId, camera, 0});
            all.WaitForMore(count);
        }
        lastSent.Set();
        peer.ReadToTheEnd();
    });
    Client client(kGenerous, service.Name());
    const orvik::Subscription throughout = client.Subscribe(all.Handler());
    subscribed.Set();
    std::atomic<int> calls{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                std::atomic<bool> ended{false};
                std::once_flag once;
                Happening called;
                orvik::Subscription subscription = client.Subscribe([&](const orvik::Event&) {
                    EXPECT_FALSE(ended) << "called after the end";
                    std::call_once(once, [&] { called.Set(); });
                    ++calls;
                });
                EXPECT_TRUE(called.Wait());
                subscription.End();
                all.WaitForMore(all.Count());  // a call that was under way has ended then
                ended = true;
                all.WaitForMore(all.Count());
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

TEST(ClientEvents, AHandlerMayEndItsSubscriptionAndAnotherMayOutliveTheClient) {
    FakeService service([](Peer& peer) {
        peer.Welcome({1, 2, 3});
        peer.ReadToTheEnd();
    });
    orvik::Subscription outliving;
    std::atomic<int> calls{0};
    {
        Client client(kGenerous, service.Name());
        orvik::Subscription own;
        Happening set;
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

TEST(ClientHandlers, MayAskTheCameraAndWaitForIt) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest(), MakeBytes({1}));
        peer.Succeed(peer.ReadRequest(), MakeBytes({2}));
        peer.ReadToTheEnd();
    });
    Client client(kGenerous, service.Name());
    std::promise<Bytes> answer;
    client.StartTransferIn(7, orvik::InquiryCdb(), [&](orvik::TransferResult first) {
        Bytes both = std::move(first.data);
        both.push_back(client.TransferIn(7, orvik::InquiryCdb(), kGenerous).at(0));
        answer.set_value(both);
    });
    EXPECT_EQ(answer.get_future().get(), MakeBytes({1, 2}));
}

TEST(ClientHandlers, OneThatTakesItsTimeDelaysNoSynchronousTransfer) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest(), MakeBytes({1}));
        peer.ReadToTheEnd();
    });
    Happening called;
    Happening answered;
    Client client(kGenerous, service.Name());
    const orvik::Subscription subscription = client.Subscribe([&](const orvik::Event&) {
        called.Set();
        EXPECT_TRUE(answered.Wait());
    });
    ASSERT_TRUE(called.Wait());
    EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kGenerous), MakeBytes({1}));
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
        auto client = std::make_unique<Client>(kGenerous, service.Name());
        Happening ready;
        Happening destroyed;
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

TEST(ClientDestroyed, DoesNotWaitForAHandlerAndCallsNoOther) {
    FakeService service([](Peer& peer) {
        peer.Welcome({1, 2});
        peer.ReadRequest();  // never answered
        peer.Refuse(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    Happening called;
    Happening destroyed;
    Happening ended;
    std::atomic<int> calls{0};
    orvik::Subscription subscription;
    {
        Client client(kGenerous, service.Name());
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

TEST(ClientThreads, ACallersThreadThatEndsTakesNoReadingAlong) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest(), MakeBytes({1}));
        peer.ReadRequest();
        peer.Succeed(peer.ReadRequest(), MakeBytes({2}));
        peer.ReadToTheEnd();
    });
    Client client(kGenerous, service.Name());
    // It has started the read that is under way when it gives up: behind its first answer.
    std::thread([&] {
        EXPECT_EQ(client.TransferIn(7, orvik::InquiryCdb(), kGenerous), MakeBytes({1}));
        EXPECT_EQ(KindOf([&] { client.TransferIn(7, orvik::InquiryCdb(), 50ms); }),
                  ErrorKind::kTimedOut);
    }).join();
    Answer answer;
    client.StartTransferIn(7, orvik::InquiryCdb(), answer.Completion());
    EXPECT_EQ(answer.Data(), MakeBytes({2}));
}

TEST(ClientThreads, ReplacedByAnotherConnectionEndsTheFirst) {
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
    Client client(kGenerous, first.Name());
    client.StartTransferNoData(7, orvik::TestUnitReadyCdb(),
                               [](const orvik::TransferResult&) { FAIL() << "an answer"; });
    client = Client(kGenerous, second.Name());
    EXPECT_EQ(client.Cameras(), (std::vector<orvik::CameraId>{8}));
}

TEST(ClientLeave, StaysUntilTheServiceSurelyReads) {
    Happening secondConnected;
    Happening nextTurn;
    Happening left;
    std::promise<bool> wasThere;
    FakeService service(
        [&](Peer& peer) {
            peer.Welcome({});
            // The service has answered and is not yet reading.
            EXPECT_TRUE(secondConnected.Wait());
            wasThere.set_value(peer.ClientIsThere());
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
    { const Client client(kGenerous, service.Name()); }
    EXPECT_TRUE(wasThere.get_future().get()) << "left before the service's next turn";
    EXPECT_TRUE(left.Wait());
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientLeave, NeedsNoSecondConnectionAfterASuccess) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest());
        peer.ReadToTheEnd();
    });
    {
        Client client(kGenerous, service.Name());
        client.TransferNoData(7, orvik::TestUnitReadyCdb(), kGenerous);
    }
    EXPECT_EQ(service.Connections(), 1);
}

TEST(ClientLeave, WaitsForTheServiceAndNotForTheCamera) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.ReadRequest();  // never answered
        const Request roundTrip = peer.ReadRequest();
        EXPECT_EQ(roundTrip.header.bodyLength, 0U);
        peer.Refuse(roundTrip);
        EXPECT_TRUE(peer.ReadToTheEnd().empty());
    });
    {
        Client client(kGenerous, service.Name());
        client.StartTransferNoData(7, orvik::TestUnitReadyCdb(),
                                   [](const orvik::TransferResult&) { FAIL() << "an answer"; });
    }
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientLeave, AServiceThatHangsFindsAHarmlessRequest) {
    Happening left;
    FakeService service(
        [&](Peer& peer) {
            peer.Welcome({});
            EXPECT_TRUE(left.Wait());
            const Bytes rest = peer.ReadToTheEnd();
            ASSERT_EQ(rest.size(), sizeof(MessageHeader));
            MessageHeader header{};
            std::memcpy(&header, rest.data(), sizeof(header));
            EXPECT_EQ(header.messageType, 4U);
            EXPECT_EQ(header.bodyLength, 0U);
        },
        [&](int number) {
            if (number == 2)
                left.Wait();
        });
    const auto start = std::chrono::steady_clock::now();
    { const Client client(kGenerous, service.Name()); }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    left.Set();
}

TEST(Scsi, Commands) {
    const auto bytes = [](const auto& cdb) { return Bytes(cdb.begin(), cdb.end()); };
    EXPECT_EQ(bytes(orvik::InquiryCdb()), MakeBytes({0x12, 0, 0, 0, 36, 0}));
    EXPECT_EQ(bytes(orvik::TestUnitReadyCdb()), MakeBytes({0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes(orvik::ReadCapacityCdb()), MakeBytes({0x25, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes(orvik::Read6Cdb(0x1F2345, 128)), MakeBytes({8, 0x1F, 0x23, 0x45, 128, 0}));
    EXPECT_EQ(bytes(orvik::Read6Cdb(0x1FFFFF, 1)), MakeBytes({8, 0x1F, 0xFF, 0xFF, 1, 0}));
    EXPECT_EQ(bytes(orvik::Write6Cdb(0x1F2345, 255)), MakeBytes({10, 0x1F, 0x23, 0x45, 255, 0}));
    EXPECT_EQ(bytes(orvik::RequestSenseCdb()), MakeBytes({3, 0, 0, 0, 252, 0}));
}

TEST(Scsi, Read6RefusesWhatItCannotSay) {
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0, 0); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0, 256); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0x200000, 1); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0x1FFFFF, 2); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0xFFFFFFFF, 2); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Write6Cdb(0x1FFFFF, 2); }), ErrorKind::kBadArgument);
}

Bytes InquiryData(const std::string& texts) {
    Bytes data = MakeBytes({0x60, 0x80, 4, 2, 31, 0, 0, 0});
    for (const char c : texts)
        data.push_back(static_cast<std::byte>(c));
    return data;
}

TEST(Scsi, InquiryData) {
    const auto inquiry = orvik::DecodeInquiry(InquiryData("Orvik   A camera        F01 "));
    EXPECT_EQ(inquiry.deviceType, 0);
    EXPECT_TRUE(inquiry.removable);
    EXPECT_EQ(inquiry.vendor, "Orvik");
    EXPECT_EQ(inquiry.product, "A camera");
    EXPECT_EQ(inquiry.revision, "F01");
}

TEST(Scsi, InquiryDataFromAHostileCamera) {
    using namespace std::string_literals;
    const auto odd =
        orvik::DecodeInquiry(InquiryData("\x1B[31m\xFF\0x        \0\0\0\0\0\0\0\0 \x7F\n "s));
    EXPECT_EQ(odd.vendor, "?[31m??x");
    EXPECT_EQ(odd.product, "");
    EXPECT_EQ(odd.revision, " ??");
    for (std::size_t size = 0; size < 36; ++size)
        EXPECT_EQ(KindOf([&] { orvik::DecodeInquiry(Bytes(size)); }), ErrorKind::kBadAnswer);
    EXPECT_EQ(orvik::DecodeInquiry(Bytes(36)).vendor, "");
    EXPECT_EQ(orvik::DecodeInquiry(Bytes(65536)).vendor, "");
}

TEST(Scsi, CapacityData) {
    const auto capacity = orvik::DecodeCapacity(MakeBytes({0, 1, 0x86, 0x9F, 0, 0, 2, 0}));
    EXPECT_EQ(capacity.blockCount, 100'000U);
    EXPECT_EQ(capacity.blockLength, 512U);
    const auto largest =
        orvik::DecodeCapacity(MakeBytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0}));
    EXPECT_EQ(largest.blockCount, std::uint64_t{1} << 32);
    EXPECT_EQ(largest.blockLength, 0xFFFFFFFFU);
    EXPECT_EQ(KindOf([] { orvik::DecodeCapacity(Bytes(7)); }), ErrorKind::kBadAnswer);
    EXPECT_EQ(KindOf([] { orvik::DecodeCapacity(Bytes(8)); }), ErrorKind::kBadAnswer);
}

}  // namespace
