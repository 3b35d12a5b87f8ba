// The client library with the real service and virtual cameras.

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <exception>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_answers.h"
#include "installed_service.h"
#include "orvik/client.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "watching_test.h"

namespace system_test {
namespace {

using namespace std::chrono_literals;
using client_test::Answer;
using client_test::ErrorOf;
using client_test::EventLog;
using client_test::Happening;
using client_test::KindOf;
using orvik::ErrorKind;
using Bytes = std::vector<std::byte>;

/// A client of the service that runs in the foreground, which the control manager knows nothing of.
orvik::ConnectOptions Foreground(std::chrono::milliseconds timeout = kDeadline) {
    orvik::ConnectOptions options;
    options.timeout = timeout;
    options.checkServer = false;
    return options;
}

class Client : public orvik::Client {
public:
    explicit Client(std::chrono::milliseconds timeout = kDeadline)
        : orvik::Client(Foreground(timeout)) {}
};

/// Bytes that differ from those of another seed.
Bytes Pattern(std::size_t size, unsigned seed) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<std::byte>(i * 7 + i / 251 + seed * 31);
    return bytes;
}

/// Stops a process while this object lives.
class SuspendedProcess {
public:
    explicit SuspendedProcess(HANDLE process) : suspended(process) {
        EXPECT_EQ(Call("NtSuspendProcess"), 0);
    }
    ~SuspendedProcess() { EXPECT_EQ(Call("NtResumeProcess"), 0); }

    SuspendedProcess(const SuspendedProcess&) = delete;
    SuspendedProcess& operator=(const SuspendedProcess&) = delete;

private:
    LONG Call(const char* function) const {
        const auto address = ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), function);
        // By way of void*, as the compiler warns of casts between function types.
        return reinterpret_cast<LONG(NTAPI*)(HANDLE)>(reinterpret_cast<void*>(address))(suspended);
    }

    HANDLE suspended;  // not owned
};

/// The service in the foreground, with one camera.
class ClientTest : public SystemTest {
protected:
    PluggedCamera camera{bus};
    RunningService service;
};

TEST_F(ClientTest, CamerasPresentAreKnownOnceConnected) {
    EXPECT_EQ(Client().Cameras(), std::vector<orvik::CameraId>{1});
}

TEST_F(SystemTest, ManyCamerasAreAllKnownOnceConnected) {
    std::vector<std::unique_ptr<PluggedCamera>> plugged;
    std::vector<orvik::CameraId> expected;
    for (orvik::CameraId id = 1; id <= 30; ++id) {
        plugged.push_back(std::make_unique<PluggedCamera>(bus));
        expected.push_back(id);
    }
    const RunningService service;
    for (int round = 0; round < 20; ++round)
        EXPECT_EQ(Client().Cameras(), expected);
}

TEST_F(SystemTest, ClientSaysWhyTheServiceCannotBeReached) {
    const auto expect = [](ErrorKind kind, DWORD code, const char* words,
                           std::chrono::milliseconds timeout = kDeadline) {
        const auto error = ErrorOf([&] { orvik::Client(orvik::ConnectOptions{timeout}); });
        EXPECT_EQ(error.Kind(), kind) << error.what();
        EXPECT_EQ(error.SystemCode(), code) << error.what();
        EXPECT_NE(std::string(error.what()).find(words), std::string::npos) << error.what();
    };
    EXPECT_EQ(KindOf([] { const Client client; }), ErrorKind::kStopped);
    expect(ErrorKind::kNotInstalled, ERROR_SERVICE_DOES_NOT_EXIST, "not installed");

    InstallService(TestFolder() + L"\\slow_service.exe");
    expect(ErrorKind::kStopped, ERROR_SERVICE_NOT_ACTIVE, "not running");

    const UniqueHandle runs(
        ::CreateEventW(nullptr, TRUE, FALSE, LR"(Global\orvik-slow-service-runs)"));
    ASSERT_TRUE(runs);
    ASSERT_EQ(StartInstalledService(), DWORD{ERROR_SUCCESS});
    StateNotification(SERVICE_NOTIFY_START_PENDING).Wait();
    expect(ErrorKind::kStarting, ERROR_FILE_NOT_FOUND, "still starting", 100ms);

    ::SetEvent(runs.get());
    StateNotification(SERVICE_NOTIFY_RUNNING).Wait();
    expect(ErrorKind::kBusy, ERROR_FILE_NOT_FOUND, "its pipe does not exist", 100ms);
    EndLeftovers();
}

TEST_F(SystemTest, ClientConnectsToTheServiceThatTheControlManagerRuns) {
    const PluggedCamera camera(bus);
    const RunningService service(RunMode::kServiceManager);
    orvik::Client client;
    EXPECT_EQ(client.TransferIn(1, orvik::InquiryCdb()).size(), 36u);
}

TEST_F(ClientTest, AServiceInAConsoleIsTheWrongServerAndSurvivesThat) {
    for (int round = 0; round < 20; ++round) {
        const auto error = ErrorOf([] { orvik::Client(); });
        EXPECT_EQ(error.Kind(), ErrorKind::kWrongServer) << error.what();
        EXPECT_NE(std::string(error.what()).find("process " + std::to_string(service.ProcessId())),
                  std::string::npos)
            << error.what();
    }
    EXPECT_EQ(Client().TransferIn(1, orvik::InquiryCdb()).size(), 36u);
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

TEST_F(ClientTest, TransfersReachTheCameraAndComeBack) {
    Client client;
    client.TransferNoData(1, orvik::TestUnitReadyCdb());
    const orvik::Inquiry inquiry = orvik::DecodeInquiry(client.TransferIn(1, orvik::InquiryCdb()));
    EXPECT_EQ(inquiry.vendor, "Orvik");
    EXPECT_EQ(inquiry.product, "Virtual Camera");
    EXPECT_EQ(inquiry.revision, "F01");
    const orvik::Capacity capacity =
        orvik::DecodeCapacity(client.TransferIn(1, orvik::ReadCapacityCdb()));
    EXPECT_EQ(capacity.blockCount, 2048u);
    EXPECT_EQ(capacity.blockLength, vcam::kBlockSize);

    const Bytes block = Pattern(vcam::kBlockSize, 1);
    client.TransferOut(1, orvik::Write6Cdb(5, 1), block);
    EXPECT_EQ(bus.ReadMemory(camera.Id(), 5 * vcam::kBlockSize, block.size()), block);
    EXPECT_EQ(client.TransferIn(1, orvik::Read6Cdb(5, 1)), block);
    EXPECT_EQ(client.TransferIn(1, orvik::Read6Cdb(0, 128)),
              bus.ReadMemory(camera.Id(), 0, orvik::kTransferInLimit));
}

TEST_F(ClientTest, RequestsThatEndOutOfOrderFindTheirAnswers) {
    Client client;
    for (std::uint8_t block = 0; block < 8; ++block)
        client.TransferOut(1, orvik::Write6Cdb(block, 1), Pattern(vcam::kBlockSize, block));
    const std::uint64_t before = camera.Counters().requests;
    camera.Set(Holds());
    std::array<Answer, 8> answers;
    for (unsigned block = 0; block < 8; ++block)
        client.StartTransferIn(1, orvik::Read6Cdb(block, 1), answers[block].Completion());
    bus.WaitForPending(camera.Id(), 8, kDeadline);
    for (unsigned block = 8; block-- > 0;)
        bus.Release(camera.Id(), before + 1 + block);
    for (unsigned block = 0; block < 8; ++block)
        EXPECT_EQ(answers[block].Data(), Pattern(vcam::kBlockSize, block)) << block;
}

TEST_F(ClientTest, CommandThatTheCameraRefuses) {
    Client client;
    camera.Set(AnswersScsiStatus(2));
    EXPECT_EQ(KindOf([&] { client.TransferIn(1, orvik::InquiryCdb()); }), ErrorKind::kRefused);
    camera.Set({});
    EXPECT_EQ(client.TransferIn(1, orvik::InquiryCdb()).size(), 36u);
}

TEST_F(ClientTest, CameraUnpluggedInTheMiddle) {
    Client client;
    camera.Set(Holds());
    Answer answer;
    client.StartTransferIn(1, orvik::InquiryCdb(), answer.Completion());
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    camera.Unplug();
    EXPECT_EQ(KindOf([&] { answer.Data(); }), ErrorKind::kRefused);
    // Until this client has read that the camera has gone, the service refuses. It says so when it
    // hears of the unplugging, and again when it is asked for the camera and can't start.
    ErrorKind kind = ErrorKind::kRefused;
    for (int attempt = 0; attempt < 3 && kind == ErrorKind::kRefused; ++attempt)
        kind = KindOf([&] { client.TransferIn(1, orvik::InquiryCdb()); });
    EXPECT_EQ(kind, ErrorKind::kNoSuchCamera);
    EXPECT_TRUE(client.Cameras().empty());
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(ClientTest, UnknownCameraIsRefusedBeforeItEndsTheService) {
    Client client;
    EXPECT_EQ(KindOf([&] { client.TransferIn(2, orvik::InquiryCdb()); }), ErrorKind::kNoSuchCamera);
    EXPECT_EQ(client.TransferIn(1, orvik::InquiryCdb()).size(), 36u);
}

/// The calls that can be cut off, and how each is made. All wait for their end.
using MakeCall = void (*)(Client& client);
struct NamedCall {
    const char* name;
    MakeCall make;
};

constexpr NamedCall kCalls[] = {
    {"TransferIn", [](Client& client) { client.TransferIn(1, orvik::InquiryCdb()); }},
    {"TransferOut",
     [](Client& client) {
         client.TransferOut(1, orvik::Write6Cdb(0, 1), Bytes(vcam::kBlockSize));
     }},
    {"TransferNoData", [](Client& client) { client.TransferNoData(1, orvik::TestUnitReadyCdb()); }},
    {"StartTransferIn",
     [](Client& client) {
         Answer answer;
         client.StartTransferIn(1, orvik::InquiryCdb(), answer.Completion());
         answer.Data();
     }},
    {"StartTransferOut",
     [](Client& client) {
         Answer answer;
         client.StartTransferOut(1, orvik::Write6Cdb(0, 1), Bytes(vcam::kBlockSize),
                                 answer.Completion());
         answer.Data();
     }},
    {"StartTransferNoData",
     [](Client& client) {
         Answer answer;
         client.StartTransferNoData(1, orvik::TestUnitReadyCdb(), answer.Completion());
         answer.Data();
     }},
};

class ClientCutOff : public ClientTest, public testing::WithParamInterface<NamedCall> {};

TEST_P(ClientCutOff, ByTheEndOfTheService) {
    Client client;
    EventLog log;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    camera.Set(Holds());
    auto kind =
        std::async(std::launch::async, [&] { return KindOf([&] { GetParam().make(client); }); });
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    service.Stop();
    EXPECT_EQ(kind.get(), ErrorKind::kServiceGone);
    EXPECT_EQ(KindOf([&] { GetParam().make(client); }), ErrorKind::kServiceGone);
    EXPECT_EQ(log.WaitFor(2), (std::vector<std::string>{"+1", "gone"}));
    service.Start();
    client = Client();
    camera.Set({});
    GetParam().make(client);
}

TEST_P(ClientCutOff, ByTheUnpluggingOfTheCamera) {
    Client client;
    camera.Set(Holds());
    auto kind =
        std::async(std::launch::async, [&] { return KindOf([&] { GetParam().make(client); }); });
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    camera.Unplug();
    EXPECT_EQ(kind.get(), ErrorKind::kRefused);
    EXPECT_TRUE(service.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(Calls, ClientCutOff, testing::ValuesIn(kCalls),
                         [](const auto& call) { return std::string(call.param.name); });

/// Waits until somebody has the instance of the pipe that waits for a client.
void WaitUntilNoInstanceIsFree() {
    const Deadline deadline;
    while (::WaitNamedPipeW(kCameraPipeName, 1)) {
        ASSERT_FALSE(deadline.Over());
        ::Sleep(1);  // nothing tells
    }
}

TEST_F(ClientTest, ServiceKilledWhileAClientConnects) {
    std::optional<SuspendedProcess> hanging(std::in_place, service.Process());
    auto kind = std::async(std::launch::async, [] { return KindOf([] { const Client client; }); });
    WaitUntilNoInstanceIsFree();
    service.Stop();
    hanging.reset();
    EXPECT_EQ(kind.get(), ErrorKind::kServiceGone);
}

TEST_F(ClientTest, ServiceKilledWhileAClientLeaves) {
    auto leaving = std::make_unique<Client>();
    std::optional<SuspendedProcess> hanging(std::in_place, service.Process());
    auto left = std::async(std::launch::async, [&] { leaving.reset(); });
    WaitUntilNoInstanceIsFree();
    service.Stop();
    hanging.reset();
    EXPECT_EQ(left.wait_for(10s), std::future_status::ready);
}

TEST_F(ClientTest, RoundTripIsCutOffByItsDeadlineAndByTheEndOfTheService) {
    Client client;
    std::optional<SuspendedProcess> hanging(std::in_place, service.Process());
    EXPECT_EQ(KindOf([&] { client.RoundTrip(100ms); }), ErrorKind::kTimedOut);
    auto kind = std::async(std::launch::async, [&] { return KindOf([&] { client.RoundTrip(); }); });
    service.Stop();
    hanging.reset();
    EXPECT_EQ(kind.get(), ErrorKind::kServiceGone);
}

TEST_F(ClientTest, CancelRacesWithTheAnswer) {
    constexpr int kRequests = 10'000;
    Client client;
    std::atomic<int> answered{0};
    std::atomic<int> cancelled{0};
    std::atomic<int> ended{0};
    Happening all;
    int accepted = 0;
    for (int request = 0; request < kRequests; ++request) {
        const int answeredBefore = answered;
        const orvik::RequestId id = client.StartTransferNoData(
            1, orvik::TestUnitReadyCdb(), [&](const orvik::TransferResult& result) {
                if (!result.error) {
                    ++answered;
                    answered.notify_one();
                } else if (result.error->Kind() == ErrorKind::kCancelled) {
                    ++cancelled;
                }
                if (++ended == kRequests)
                    all.Set();
            });
        // About as long as an answer takes, now shorter, now longer, and now and then surely so
        // long: how long that is depends on what else the machine does.
        if (request % 64 == 63)
            answered.wait(answeredBefore);
        for (int spin = request % 64 * 150; spin > 0; --spin)
            ::YieldProcessor();
        accepted += client.Cancel(id) ? 1 : 0;
    }
    EXPECT_TRUE(all.Wait());
    EXPECT_EQ(cancelled, accepted);
    EXPECT_EQ(answered + cancelled, kRequests);
    EXPECT_GT(answered, 0);
    EXPECT_GT(cancelled, 0);
    EXPECT_EQ(client.TransferIn(1, orvik::InquiryCdb()).size(), 36u);
    RecordProperty("answered", answered);
    RecordProperty("cancelled", cancelled);
}

TEST_F(ClientTest, ManyThreadsShareOneClient) {
    constexpr unsigned kThreads = 8;
    constexpr unsigned kRounds = 40;
    // More than the pipe takes at once, so that writes of several threads wait side by side.
    constexpr unsigned kBlocks = 200;
    constexpr unsigned kBlocksRead = 128;
    Client client;
    std::atomic<unsigned> right{0};
    std::vector<std::thread> threads;
    for (unsigned number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            for (unsigned round = 0; round < kRounds; ++round) {
                const unsigned first = number * kBlocks;
                const Bytes data = Pattern(kBlocks * vcam::kBlockSize, number * kRounds + round);
                client.TransferOut(1, orvik::Write6Cdb(first, kBlocks), data);
                Answer answer;
                client.StartTransferIn(1, orvik::Read6Cdb(first, kBlocksRead), answer.Completion());
                const Bytes expected(data.begin(), data.begin() + kBlocksRead * vcam::kBlockSize);
                if (client.TransferIn(1, orvik::Read6Cdb(first, kBlocksRead)) == expected &&
                    answer.Data() == expected)
                    ++right;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(right, kThreads * kRounds);
}

TEST_F(ClientTest, DestroyedInAHandlerItLeavesTheServiceRunning) {
    for (int round = 0; round < 20; ++round) {
        auto client = std::make_unique<Client>();
        Happening ready;
        Happening destroyed;
        const auto destroy = [&] {
            EXPECT_TRUE(ready.Wait());
            client.reset();
            destroyed.Set();
        };
        orvik::Subscription subscription;
        if (round % 2 == 0)
            subscription = client->Subscribe([&](const orvik::Event&) { destroy(); });
        else
            client->StartTransferNoData(1, orvik::TestUnitReadyCdb(),
                                        [&](const orvik::TransferResult&) { destroy(); });
        ready.Set();
        EXPECT_TRUE(destroyed.Wait());
    }
    EXPECT_EQ(Client().TransferIn(1, orvik::InquiryCdb()).size(), 36u);
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

TEST_F(ClientTest, CameraThatNeverAnswersDelaysNeitherTheCallerNorItsLeaving) {
    camera.Set(Holds());
    const auto start = std::chrono::steady_clock::now();
    {
        Client client;
        EXPECT_EQ(KindOf([&] { client.TransferIn(1, orvik::InquiryCdb(), 100ms); }),
                  ErrorKind::kTimedOut);
        EXPECT_EQ(KindOf([&] {
                      client.TransferOut(1, orvik::Write6Cdb(0, 1), Bytes(vcam::kBlockSize), 100ms);
                  }),
                  ErrorKind::kTimedOut);
        EXPECT_EQ(KindOf([&] { client.TransferNoData(1, orvik::TestUnitReadyCdb(), 100ms); }),
                  ErrorKind::kTimedOut);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    camera.Set({});
    EXPECT_EQ(Client().TransferIn(1, orvik::InquiryCdb()).size(), 36u);
}

TEST_F(ClientTest, ClientsThatConnectAndLeaveAsFastAsTheyCanLeaveTheServiceRunning) {
    constexpr int kThreads = 6;
    constexpr int kVisits = 80;
    std::mutex mutex;
    std::atomic<int> visits{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            try {
                for (int visit = 0; visit < kVisits; ++visit, ++visits) {
                    Client client(kDeadline);
                    // After an answer from the service, from the camera, and with one outstanding.
                    if (visit % 3 == 1)
                        client.TransferIn(1, orvik::Read6Cdb(0, 16));
                    if (visit % 3 == 2)
                        client.StartTransferNoData(1, orvik::TestUnitReadyCdb(),
                                                   [](const orvik::TransferResult&) {});
                }
            } catch (const std::exception& exception) {
                const std::lock_guard lock(mutex);
                ADD_FAILURE() << "thread " << number << ": " << exception.what();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(visits, kThreads * kVisits);
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

TEST_F(ClientTest, LeavingAServiceThatHangsDoesNotEndIt) {
    auto client = std::make_unique<Client>();
    const auto start = std::chrono::steady_clock::now();
    {
        const SuspendedProcess hanging(service.Process());
        client.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
        EXPECT_EQ(KindOf([] { Client(100ms); }), ErrorKind::kBusy);
    }
    EXPECT_EQ(Client().TransferIn(1, orvik::InquiryCdb()).size(), 36u);
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

TEST_F(ClientTest, ServiceThatHangsWhileAClientConnectsGoesOnAfterwards) {
    {
        const SuspendedProcess hanging(service.Process());
        EXPECT_EQ(KindOf([] { Client(100ms); }), ErrorKind::kTimedOut);
    }
    EXPECT_EQ(Client().Cameras(), std::vector<orvik::CameraId>{1});
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

using ClientWatchingTest = WatchingTest;

TEST_P(ClientWatchingTest, SubscribersHearOfCamerasThatComeAndGo) {
    orvik::ConnectOptions options;
    options.checkServer = GetParam() == RunMode::kServiceManager;
    orvik::Client client(options);
    EventLog log;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    std::vector<std::string> expected;
    for (int round = 0; round < 5; ++round) {
        PluggedCamera camera(bus);
        expected.push_back("+" + std::to_string(nextId));
        EXPECT_EQ(log.WaitFor(expected.size()), expected);
        EventLog other;
        orvik::Subscription also = client.Subscribe(other.Handler());
        EXPECT_EQ(other.WaitFor(1).at(0), expected.back());
        EXPECT_EQ(client.Cameras(), std::vector<orvik::CameraId>{nextId});
        also.End();
        camera.Unplug();
        expected.push_back("-" + std::to_string(nextId));
        EXPECT_EQ(log.WaitFor(expected.size()), expected);
        EXPECT_EQ(other.Count(), 1u);
        EXPECT_EQ(KindOf([&] { client.TransferIn(nextId, orvik::InquiryCdb()); }),
                  ErrorKind::kNoSuchCamera);
        ++nextId;
    }
    service.Stop();
    expected.push_back("gone");
    EXPECT_EQ(log.WaitFor(expected.size()), expected);
}

ORVIK_IN_BOTH_MODES(ClientWatchingTest);

}  // namespace
}  // namespace system_test
