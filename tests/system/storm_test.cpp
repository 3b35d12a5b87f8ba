// Many clients, much data, long runs: no client is lost, nothing is left behind.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "process_size.h"
#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {
namespace {

constexpr std::uint32_t kCamera = 1;  // the service's identifier of the first camera

RawClient Connect() {
    RawClient client;
    if (client.ReceiveMessage() != Attached(kCamera))
        throw std::runtime_error("not the message expected at first");
    return client;
}

/// Connects, takes the notification and one answer from the camera, and leaves.
void Visit(std::uint32_t requestId) {
    RawClient client = Connect();
    const Message answer = client.Ask(kTransferIn, requestId, kCamera, Inquiry());
    if (answer != Succeeded(requestId, kCamera, answer.body) || answer.body.size() != 36)
        throw std::runtime_error("not the answer expected");
    client.Leave();
}

/// Runs `work` on a number of threads, each with its number, and reports what they throw.
void OnThreads(std::uint32_t count, const std::function<void(std::uint32_t)>& work) {
    std::mutex mutex;
    std::vector<std::thread> threads;
    for (std::uint32_t number = 0; number < count; ++number) {
        threads.emplace_back([&, number] {
            try {
                work(number);
            } catch (const std::exception& exception) {
                const std::lock_guard lock(mutex);
                ADD_FAILURE() << "thread " << number << ": " << exception.what();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

/// A program that is the service, and where it runs.
struct Service {
    const char* name;
    RunMode mode;
    std::wstring path;
};

std::vector<Service> Services() {
    const std::wstring shipped = ProgramPath(L"OrvikService.exe");
    return {
        {"Foreground", RunMode::kForeground, shipped},
        {"ServiceManager", RunMode::kServiceManager, shipped},
#ifdef ORVIK_GUARDED_SERVICE
        {"Guarded", RunMode::kForeground, GuardedServicePath()},
#endif
    };
}

/// With one camera.
class StormTest : public SystemTest, public testing::WithParamInterface<Service> {
protected:
    PluggedCamera camera{bus};
    RunningService service{GetParam().mode, GetParam().path};
};
INSTANTIATE_TEST_SUITE_P(Services, StormTest, testing::ValuesIn(Services()),
                         [](const auto& service) { return service.param.name; });

TEST_P(StormTest, EveryClientOfAReconnectStormIsServedWhileOthersTransfer) {
    constexpr std::uint32_t kVisitors = 8;
    constexpr std::uint32_t kVisitsEach = 60;
    constexpr std::uint32_t kWorkers = 2;
    const Bytes block = Pattern(65536);
    bus.WriteMemory(camera.Id(), 0, block);
    std::atomic<std::uint32_t> visitors = kVisitors;
    std::atomic<std::uint32_t> visits = 0;
    std::atomic<std::uint32_t> transfers = 0;
    OnThreads(kVisitors + kWorkers, [&](std::uint32_t number) {
        if (number < kVisitors) {
            const auto done = [&](void*) { --visitors; };
            const std::unique_ptr<void, decltype(done)> guard(&visitors, done);
            for (std::uint32_t visit = 0; visit < kVisitsEach; ++visit, ++visits)
                Visit(visit);
            return;
        }
        RawClient client = Connect();
        for (std::uint32_t id = 0; visitors != 0 || id == 0; ++id, ++transfers) {
            if (client.Ask(kTransferIn, id, kCamera, Read6(0, 128)) !=
                Succeeded(id, kCamera, block))
                throw std::runtime_error("not the data expected");
        }
    });
    EXPECT_EQ(visits, kVisitors * kVisitsEach);
    EXPECT_GE(transfers, kWorkers);
    EXPECT_TRUE(service.IsRunning());
    Visit(1);
}

TEST_P(StormTest, ThreeHundredClientsAtOnceEachHaveTheirOwnTraffic) {
    // More than the 255 that CreateNamedPipeW takes for "unlimited".
    constexpr std::uint32_t kClients = 300;
    constexpr std::uint32_t kThreads = 4;
    std::vector<RawClient> clients;
    for (std::uint32_t number = 0; number < kClients; ++number)
        clients.push_back(Connect());
    OnThreads(kThreads, [&](std::uint32_t thread) {
        // All write their own block, then all read it back.
        for (std::uint32_t number = thread; number < kClients; number += kThreads)
            clients[number].SendRequest(kTransferOut, number, kCamera, Write6(number, 1),
                                        Pattern(512, number));
        for (std::uint32_t number = thread; number < kClients; number += kThreads)
            EXPECT_EQ(clients[number].ReceiveMessage(), Succeeded(number, kCamera));
        for (std::uint32_t number = thread; number < kClients; number += kThreads)
            clients[number].SendRequest(kTransferIn, number, kCamera, Read6(number, 1));
        for (std::uint32_t number = thread; number < kClients; number += kThreads)
            EXPECT_EQ(clients[number].ReceiveMessage(),
                      Succeeded(number, kCamera, Pattern(512, number)));
    });
    EXPECT_EQ(camera.Counters().opens, 2u);  // the look at start-up, and one handle for all
    for (RawClient& client : clients)
        client.Leave();
    Visit(1);
    EXPECT_TRUE(service.IsRunning());
}

// --- large bodies ---

constexpr std::size_t kLargeBody = 64 * 1024 * 1024;

class LargeBody : public SystemTest {
protected:
    static vcam::PlugOptions LargeCamera() {
        vcam::PlugOptions options;
        options.blockCount = kLargeBody / vcam::kBlockSize;
        options.transferLimit = kLargeBody;
        return options;
    }

    PluggedCamera camera{bus, LargeCamera()};
    RunningService service;
};

TEST_F(LargeBody, OfAMessageThatIsIgnoredIsSwallowedInOneWrite) {
    RawClient client = Connect();
    Bytes messages = MessageBytes(7, 1, kCamera, Bytes(kLargeBody));
    const Bytes request = RequestBytes(kTransferNoData, 2, kCamera, TestUnitReady());
    messages.insert(messages.end(), request.begin(), request.end());
    client.Send(messages);
    EXPECT_EQ(client.ReceiveMessage(), Succeeded(2, kCamera));
}

TEST_F(LargeBody, ReachesTheCameraInOneWriteAndInPieces) {
    // As many bytes of data as make a body of that size; the camera takes 256 blocks of them.
    const Bytes data = Pattern(kLargeBody - kCdbFieldSize);
    const Bytes request = RequestBytes(kTransferOut, 1, kCamera, Write6(0, 0), data);
    RawClient client = Connect();
    for (const std::size_t piece : {request.size(), std::size_t{1'000'003}}) {
        bus.WriteMemory(camera.Id(), 0, Bytes(131072));
        for (std::size_t sent = 0; sent < request.size(); sent += piece)
            client.Send(std::span(request).subspan(sent, std::min(piece, request.size() - sent)));
        EXPECT_EQ(client.ReceiveMessage(), Succeeded(1, kCamera));
        EXPECT_EQ(camera.LastRequest().inputLength, 65 + data.size());
        EXPECT_EQ(bus.ReadMemory(camera.Id(), 0, 131072),
                  Bytes(data.begin(), data.begin() + 131072));
    }
}

// --- nothing is left behind ---

class EnduranceTest : public SystemTest {
protected:
    explicit EnduranceTest(const std::wstring& path = ProgramPath(L"OrvikService.exe"))
        : service(RunMode::kForeground, path) {}

    /// Plays, and checks that the service holds no more afterwards.
    void Endure(std::uint32_t rounds);

    /// Plays `rounds` rounds, in which clients end in every way that the service survives.
    void Play(std::uint32_t rounds) {
        for (std::uint32_t round = 0; round < rounds; ++round) {
            Visit(round);
            LeaveWithAnswersUnread();
            LeaveWithTransfersPending();
            LeaveInTheMiddleOfABody();
            gone += 4;
        }
        service.Output().WaitFor("ServerClient shutdown.", gone);
        Visit(rounds);
        ++gone;
        service.Output().WaitFor("ServerClient shutdown.", gone);
        EXPECT_TRUE(bystander.RoundTrip());
    }

    /// Megabytes, of which the pipe takes the first 64 KiB.
    void LeaveWithAnswersUnread() {
        RawClient client = Connect();
        constexpr std::uint32_t kRequests = 32;
        const std::uint64_t before = camera.Counters().requests;
        for (std::uint32_t id = 0; id < kRequests; ++id)
            client.SendRequest(kTransferIn, id, kCamera, Read6(0, 128));
        bus.WaitFor(camera.Id(), vcam::Counter::kRequests, before + kRequests, kDeadline);
        EXPECT_TRUE(bystander.RoundTrip());  // so the service waits for the client's next message
        client.Leave();
    }

    void LeaveWithTransfersPending() {
        RawClient client = Connect();
        camera.Set(Holds());
        for (std::uint32_t id = 0; id < 4; ++id)
            client.SendRequest(kTransferIn, id, kCamera, Read6(0, 128));
        bus.WaitForPending(camera.Id(), 4, kDeadline);
        EXPECT_TRUE(bystander.RoundTrip());
        client.Leave();
        EXPECT_TRUE(bystander.RoundTrip());
        camera.Set({});
        bus.ReleaseAll(camera.Id());
    }

    void LeaveInTheMiddleOfABody() {
        RawClient client = Connect();
        Bytes message = HeaderBytes({kTransferOut, 1, kCamera, 500'000});
        message.resize(message.size() + 1000);
        client.Send(message);
        EXPECT_TRUE(bystander.RoundTrip());
        EXPECT_TRUE(bystander.RoundTrip());  // for the packet that the body's first piece queues
        client.Leave();
    }

    PluggedCamera camera{bus};
    RunningService service;
    RawClient bystander = Connect();
    std::size_t gone = 0;  // clients so far
};

TEST_F(EnduranceTest, NeitherHandlesNorMemoryGrowWithTheClientsThatCameAndWent) {
    Endure(50);
}

#ifdef ORVIK_GUARDED_SERVICE
class GuardedEnduranceTest : public EnduranceTest {
protected:
    GuardedEnduranceTest() : EnduranceTest(GuardedServicePath()) {}
};

TEST_F(GuardedEnduranceTest, ClientsThatComeAndGoLeaveNoFreedMemoryInUse) {
    Endure(20);
}
#endif

void EnduranceTest::Endure(std::uint32_t rounds) {
    constexpr std::uint32_t kWarmUpRounds = 10;
    Play(kWarmUpRounds);
    const std::size_t handles = HandleCount(service.ProcessId());
    const std::size_t workingSet = WorkingSet(service.Process());
    Play(rounds);
    const std::size_t handlesAfter = HandleCount(service.ProcessId());
    const std::size_t workingSetAfter = WorkingSet(service.Process());
    EXPECT_GT(handles, 5u);
    EXPECT_LE(handlesAfter, handles + 5);
    // One forgotten block of a transfer in each round would be 3 MiB, one forgotten queue 100.
    EXPECT_LE(workingSetAfter, workingSet + 2 * 1024 * 1024);
    EXPECT_EQ(service.ErrorLines(), std::vector<std::string>());
}

}  // namespace
}  // namespace system_test
