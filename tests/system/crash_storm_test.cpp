// Programs that die while the service writes their dumps, beside clients of the cameras.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "crash_dumps.h"
#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {
namespace {

constexpr std::uint32_t kCamera = 1;  // the service's identifier of the only camera

/// Connects, sends one command, takes the answer, and leaves.
void Visit() {
    RawClient client;
    if (client.ReceiveMessage() != Attached(kCamera) ||
        client.Ask(kTransferNoData, 1, kCamera, TestUnitReady()) != Succeeded(1, kCamera))
        throw std::runtime_error("not the message expected");
    client.Leave();
}

DWORD RunCrashClient(const std::wstring& arguments) {
    return Program(TestFolder() + L"\\crash_client.exe", arguments).WaitForEnd();
}

class CrashStormTest : public SystemTest {
protected:
    /// Calls a function again and again on a thread of its own, until the storm is over. It is over
    /// when one throws.
    std::thread Repeat(std::function<void()> action) {
        return std::thread([this, action = std::move(action)] {
            try {
                while (!over)
                    action();
            } catch (const std::exception& exception) {
                over = true;
                ADD_FAILURE() << "after " << deaths << " deaths and " << visits
                              << " visits: " << exception.what();
            }
        });
    }

    const NewDumps dumps{CrashServerFolder()};  // removes them after the service's end
    PluggedCamera camera{bus};
    RunningService service{RunMode::kServiceManager};
    std::atomic<bool> over = false;
    std::atomic<int> deaths = 0;
    std::atomic<int> visits = 0;
};

// If the crash server closes a handle twice, the second close may close the pipe of a camera
// client. That client then gets no answer, or the service ends.
TEST_F(CrashStormTest, ProgramsThatDieWhileTheirDumpsAreWrittenTakeNothingFromOtherClients) {
    constexpr int kMostDeaths = 300;
    constexpr std::chrono::seconds kMostTime{15};
    constexpr int kSlowestDeath = 4;  // milliseconds after the request for the dump
    const Deadline end(kMostTime);
    const std::function<void()> visit = [&] {
        Visit();
        ++visits;
    };
    const std::function<void()> die = [&] {
        const int death = ++deaths;
        if (RunCrashClient(L"die " + std::to_wstring(death % (kSlowestDeath + 1))) != 0)
            throw std::runtime_error("the crash server does not register a program");
        if (death >= kMostDeaths || end.Over())
            over = true;
    };
    std::vector<std::thread> threads;
    for (const auto& action : {visit, visit, die, die})
        threads.push_back(Repeat(action));
    for (std::thread& thread : threads)
        thread.join();

    if (HasFailure())
        return;
    EXPECT_TRUE(service.IsRunning());
    EXPECT_GT(visits, 0);
    Visit();
    EXPECT_EQ(RunCrashClient(L"register"), 0u);
}

}  // namespace
}  // namespace system_test
