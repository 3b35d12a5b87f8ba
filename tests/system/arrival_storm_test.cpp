// A camera that comes and goes a thousand times while others work.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <thread>

#include <gtest/gtest.h>
#include <windows.h>

#include "process_size.h"
#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "watching_test.h"

namespace system_test {
namespace {

/// Transfers on a camera from a thread of its own until the end, through a client of its own.
class Traffic {
public:
    /// The camera must be the only one so far: of those that come later this client is not told.
    explicit Traffic(std::uint32_t cameraId) {
        EXPECT_EQ(client.ReceiveMessage(), Attached(cameraId));
        EXPECT_TRUE(client.RoundTrip());
        thread = std::thread([this, cameraId] { Run(cameraId); });
    }
    ~Traffic() {
        ended = true;
        thread.join();
    }
    Traffic(const Traffic&) = delete;
    Traffic& operator=(const Traffic&) = delete;

    std::uint32_t Transfers() const { return transfers; }

private:
    void Run(std::uint32_t cameraId) {
        try {
            const Bytes data = Bytes(65536);
            while (!ended) {
                EXPECT_EQ(client.Ask(kTransferIn, transfers, cameraId, Read6(0, 128)),
                          Succeeded(transfers, cameraId, data));
                ++transfers;
            }
        } catch (const std::exception& exception) {
            ADD_FAILURE() << "traffic: " << exception.what();
        }
    }

    RawClient client;
    std::atomic<bool> ended = false;
    std::atomic<std::uint32_t> transfers = 0;
    std::thread thread;
};

class ArrivalStormTest : public WatchingTest {
protected:
    using WatchingTest::WatchingTest;

    /// Has a camera come and go so often, and checks what the main communicator is told and that
    /// the service holds no more afterwards.
    void Storm(int cycles);
};
ORVIK_IN_BOTH_MODES(ArrivalStormTest);

TEST_P(ArrivalStormTest, ArrivalsAndRemovalsUnderTrafficAreSentOnceInOrderAndLeaveNothingBehind) {
    Storm(GetParam() == RunMode::kForeground ? 1000 : 200);  // it takes its time
}

#ifdef ORVIK_GUARDED_SERVICE
class GuardedArrivalStormTest : public ArrivalStormTest {
protected:
    GuardedArrivalStormTest() : ArrivalStormTest(GuardedServicePath()) {}
};
INSTANTIATE_TEST_SUITE_P(Modes, GuardedArrivalStormTest, testing::Values(RunMode::kForeground),
                         NameOf);

TEST_P(GuardedArrivalStormTest, ArrivalsAndRemovalsUnderTrafficTouchNoFreedMemory) {
    Storm(100);
}
#endif

void ArrivalStormTest::Storm(int cycles) {
    constexpr int kWarmUp = 50;
    RawClient main;
    PluggedCamera working(bus);
    const std::uint32_t workingId = nextId;
    ExpectAttached(main);
    Traffic traffic(workingId);

    vcam::PlugOptions options;
    options.instanceId = L"storm";  // always the same path
    const auto cycle = [&] {
        PluggedCamera camera(bus, options);
        const std::uint32_t id = nextId;
        ExpectAttached(main);
        ASSERT_EQ(main.Ask(kTransferNoData, id, id, TestUnitReady()), Succeeded(id, id));
        camera.Unplug();
        ASSERT_EQ(main.ReceiveMessage(), Detached(id));
    };
    for (int count = 0; count < kWarmUp && !HasFailure(); ++count)
        cycle();
    const std::size_t handles = HandleCount(service.ProcessId());
    const std::size_t workingSet = WorkingSet(service.Process());
    EXPECT_GT(handles, 0u);
    for (int count = 0; count < cycles && !HasFailure(); ++count)
        cycle();
    EXPECT_TRUE(main.RoundTrip()) << "no client got a second message";
    // Some come and go while the last event is being handled; a leak would show as hundreds.
    EXPECT_LE(HandleCount(service.ProcessId()), handles + 10);
    EXPECT_LE(WorkingSet(service.Process()), workingSet + (1 << 20));
    EXPECT_GT(traffic.Transfers(), 0u);
}

}  // namespace
}  // namespace system_test
