// A camera that comes and goes a thousand times while others work.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

// After <windows.h>, whose types it uses.
#include <psapi.h>

#include "plugged_camera.h"
#include "raw_client.h"
#include "service_fixture.h"
#include "watching_test.h"

namespace system_test {
namespace {

/// How many handles a process has open. Asked for the long way: GetProcessHandleCount is not
/// everywhere more than a stub.
std::size_t HandleCount(DWORD processId) {
    // SYSTEM_HANDLE_INFORMATION_EX, which <winternl.h> leaves out.
    struct Entry {
        void* object;
        ULONG_PTR processId;
        ULONG_PTR handle;
        ULONG access;
        USHORT creatorBackTraceIndex;
        USHORT objectType;
        ULONG attributes;
        ULONG reserved;
    };
    struct Handles {
        ULONG_PTR count;
        ULONG_PTR reserved;
        Entry entries[1];
    };
    constexpr ULONG kExtendedHandleInformation = 64;
    constexpr auto kInfoLengthMismatch = static_cast<LONG>(0xC0000004);
    // Its declaration takes no class that <winternl.h> doesn't know.
    using QueryInformation = LONG(NTAPI*)(ULONG infoClass, void* to, ULONG size, ULONG* returned);
    const auto query = reinterpret_cast<QueryInformation>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<std::byte> buffer(1 << 20);
    LONG status = 0;
    while ((status = query(kExtendedHandleInformation, buffer.data(),
                           static_cast<ULONG>(buffer.size()), nullptr)) == kInfoLengthMismatch)
        buffer.resize(buffer.size() * 2);
    if (status < 0)
        throw std::runtime_error("NtQuerySystemInformation");
    const auto& handles = *reinterpret_cast<const Handles*>(buffer.data());
    std::size_t count = 0;
    for (ULONG_PTR index = 0; index < handles.count; ++index) {
        if (handles.entries[index].processId == processId)
            ++count;
    }
    return count;
}

std::size_t WorkingSet(HANDLE process) {
    PROCESS_MEMORY_COUNTERS counters{};
    ::GetProcessMemoryInfo(process, &counters, sizeof(counters));
    return counters.WorkingSetSize;
}

/// Transfers on a camera from a thread of its own until the end, through a client of its own.
class Traffic {
public:
    explicit Traffic(std::uint32_t cameraId) : thread([this, cameraId] { Run(cameraId); }) {}
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
            RawClient client;
            while (client.ReceiveMessage() != Attached(cameraId)) {
            }
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

    std::atomic<bool> ended = false;
    std::atomic<std::uint32_t> transfers = 0;
    std::thread thread;
};

using ArrivalStormTest = WatchingTest;
ORVIK_IN_BOTH_MODES(ArrivalStormTest);

TEST_P(ArrivalStormTest, ArrivalsAndRemovalsUnderTrafficAreToldOnceInOrderAndLeaveNothing) {
    constexpr int kWarmUp = 50;
    const int cycles = GetParam() == RunMode::kForeground ? 1000 : 200;  // it takes its time
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
    EXPECT_TRUE(main.RoundTrip()) << "nobody is told twice";
    // Some come and go while the last event is being handled; a leak would show as hundreds.
    EXPECT_LE(HandleCount(service.ProcessId()), handles + 10);
    EXPECT_LE(WorkingSet(service.Process()), workingSet + (1 << 20));
    EXPECT_GT(traffic.Transfers(), 0u);
}

}  // namespace
}  // namespace system_test
