// The client library with the real service and virtual cameras.

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_answers.h"
#include "orvik/client.h"
#include "plugged_camera.h"
#include "service_fixture.h"

namespace system_test {
namespace {

using namespace std::chrono_literals;
using client_test::Answer;
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

TEST_F(SystemTest, ClientSaysThatTheServiceIsNotRunning) {
    EXPECT_EQ(KindOf([] { const Client client; }), ErrorKind::kStopped);
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

TEST_F(ClientTest, ServiceKilledInTheMiddle) {
    Client client;
    camera.Set(Holds());
    Answer answer;
    client.StartTransferIn(1, orvik::InquiryCdb(), answer.Completion());
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    service.Stop();
    EXPECT_EQ(KindOf([&] { answer.Data(); }), ErrorKind::kServiceGone);
    EXPECT_EQ(KindOf([&] { client.TransferIn(1, orvik::InquiryCdb()); }), ErrorKind::kServiceGone);
}

TEST_F(ClientTest, CameraThatNeverAnswersDelaysNeitherTheCallerNorItsLeaving) {
    camera.Set(Holds());
    const auto start = std::chrono::steady_clock::now();
    {
        Client client;
        EXPECT_EQ(KindOf([&] { client.TransferIn(1, orvik::InquiryCdb(), 100ms); }),
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

}  // namespace
}  // namespace system_test
