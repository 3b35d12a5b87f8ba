// Random messages of several clients at once, and a model of what has to come back.
//
// The service's side runs on the test's thread. Each client has a thread, its own part of a
// camera's memory, and a sequence of messages that its seed gives: requests that reach a camera,
// requests without a whole command, messages of unknown types; many of them in one write, some
// bodies in pieces, where docs/protocol.md permits it. Nothing that a client may not do is among
// them, until the end, where a client names a camera that is not there.
//
//   ORVIK_RANDOM_MESSAGES  how many messages; the default is 100000
//   ORVIK_RANDOM_SEED      the seed of a run that failed

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/io_operation.h"
#include "in_process_service.h"
#include "random_client.h"

namespace {

using namespace random_messages;

std::uint64_t NumberFromEnvironment(const char* name, std::uint64_t otherwise) {
    const char* const text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 0) : otherwise;
}

/// The threads of the clients are there before a test's memory is counted, and until it has been:
/// the library keeps memory of each.
class RandomMessagesTest : public InProcessService {
protected:
    void SetUp() override {
        for (std::uint32_t index = 0; index < kClients; ++index) {
            threads.emplace_back([this, index] {
                ::WaitForSingleObject(begin.get(), INFINITE);
                RunClient(index);
                ::WaitForSingleObject(end.get(), INFINITE);
            });
        }
        InProcessService::SetUp();
    }

    void TearDown() override {
        slowMemory = Bytes();
        InProcessService::TearDown();
        ::SetEvent(begin.get());
        ::SetEvent(end.get());
        for (std::thread& thread : threads)
            thread.join();
    }

    /// The cameras that the model knows.
    void PlugCameras() {
        const vcam::CameraId ordinary = Plug();
        const vcam::CameraId slow = Plug();
        bus.WriteMemory(ordinary, 0, Bytes(kClients * kBlocksOfAClient * vcam::kBlockSize));
        slowMemory = Pattern(kBlocksOfAClient * vcam::kBlockSize, 7);
        bus.WriteMemory(slow, 0, slowMemory);
        vcam::Behaviour behaviour;
        behaviour.delay = std::chrono::milliseconds(2);
        bus.SetBehaviour(slow, behaviour);
    }

    /// Dispatches until all clients have sent their messages and read the answers.
    void RunClients(std::uint64_t newSeed, std::uint64_t count) {
        seed = newSeed;
        countOfEach = count / kClients;
        ::SetEvent(begin.get());
        try {
            // Each wait has a deadline, and makes some progress.
            while (clientsDone != kClients) {
                const std::size_t before = progress;
                port.DispatchUntil("progress", [&] {
                    return clientsDone == kClients || progress > before + kMessagesOfASession;
                });
            }
        } catch (const std::exception& exception) {
            ADD_FAILURE() << "the dispatcher ended: " << exception.what();
            StopServer();  // so that the clients end
            port.DispatchUntil("the clients", [&] { return clientsDone == kClients; });
        }
        for (const std::string& failure : failures)
            EXPECT_EQ(failure, "");
    }

private:
    void RunClient(std::uint32_t index) {
        try {
            RandomClient(seed, index, slowMemory).Run(countOfEach, progress);
        } catch (const std::exception& exception) {
            failures[index] = exception.what();
        }
        auto operation = std::make_unique<IoOperation>([this](IoOperation* done) {
            ++clientsDone;
            delete done;
        });
        if (::PostQueuedCompletionStatus(port.Get(), 0, 0, &operation->overlapped))
            static_cast<void>(operation.release());
    }

    const UniqueHandle begin{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const UniqueHandle end{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::vector<std::thread> threads;
    Bytes slowMemory;
    std::uint64_t seed = 0;
    std::size_t countOfEach = 0;
    std::atomic<std::size_t> progress{0};  // messages sent
    std::size_t clientsDone = 0;           // the dispatcher's thread alone
    std::string failures[kClients];
};

TEST_F(RandomMessagesTest, AreAllAnsweredAsTheModelSays) {
    const std::uint64_t count = NumberFromEnvironment("ORVIK_RANDOM_MESSAGES", 100'000);
    const std::uint64_t chosenSeed = NumberFromEnvironment(
        "ORVIK_RANDOM_SEED", ::GetTickCount64() << 16 ^ ::GetCurrentProcessId());
    SCOPED_TRACE("ORVIK_RANDOM_SEED=" + std::to_string(chosenSeed));
    PlugCameras();
    StartServer();
    RunClients(chosenSeed, count);
    if (HasFailure())
        return;
    EXPECT_EQ(output.CountError("\n"),
              output.CountError("No main communicator when RemoveClient() called.\n"))
        << output.Error();

    auto last = Connect();
    last->Write(RequestBytes(kTransferIn, 1, kCameras + 1, Read6(0, 1)));
    try {
        port.DispatchUntil("the end of the run", [] { return false; });
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Bad camera in request.");
    }
}

}  // namespace
