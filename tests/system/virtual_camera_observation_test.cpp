// What the driver reports: the last requests, counters, waits and memory.

#include <atomic>
#include <chrono>
#include <cstring>
#include <future>
#include <thread>
#include <vector>

#include "virtual_camera_fixture.h"

namespace camera_test {
namespace {

using namespace std::chrono_literals;

TEST_F(VirtualCamera, RequestsAreKeptExactlyAsTheyCame) {
    PlugAndOpen();
    Transfer first(SCSI_IOCTL_DATA_OUT, Write6(3, 1), 512);
    for (std::size_t i = sizeof(SCSI_PASS_THROUGH); i < first.block.size(); ++i)
        first.block[i] = static_cast<std::uint8_t>(i * 13);
    const std::vector<std::uint8_t> sent = first.block;
    ASSERT_EQ(first.Run(device.get()), 0u);
    Transfer second = ReadIn(Read6(0, 1), 65536);
    ASSERT_EQ(second.Run(device.get()), 0u);

    const std::vector<vcam::Request> requests = bus.LastRequests(id);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].sequenceNumber, 1u);
    EXPECT_EQ(requests[0].inputLength, 577u);
    EXPECT_EQ(requests[0].outputLength, 577u);
    ASSERT_EQ(requests[0].block.size(), 577u);
    EXPECT_EQ(std::memcmp(requests[0].block.data(), sent.data(), 577), 0);
    EXPECT_EQ(requests[1].sequenceNumber, 2u);
    EXPECT_EQ(requests[1].block.size(), 65601u);
    EXPECT_EQ(requests[1].block[2], std::byte{0xee});  // before the driver wrote its answer
}

TEST_F(VirtualCamera, TheLastSixtyFourRequestsAreKept) {
    PlugAndOpen();
    for (std::uint8_t i = 0; i < 100; ++i) {
        Transfer read = ReadIn(Read6(i, 1), 512);
        ASSERT_EQ(read.Run(device.get()), 0u);
    }
    const std::vector<vcam::Request> requests = bus.LastRequests(id, 1000);
    ASSERT_EQ(requests.size(), vcam::kRequestsKept);
    for (std::size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].sequenceNumber, 37 + i);
        EXPECT_EQ(requests[i].block[36 + 3], static_cast<std::byte>(36 + i));
    }
    const std::vector<vcam::Request> two = bus.LastRequests(id, 2);
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[1].sequenceNumber, 100u);
    EXPECT_TRUE(bus.LastRequests(id, 0).empty());
}

TEST_F(VirtualCamera, CountersFollowHandlesAndRequests) {
    const vcam::CameraId camera = bus.Plug();
    const std::wstring path = bus.InterfacePath(camera);
    EXPECT_EQ(bus.Counters(camera).opens, 0u);
    UniqueHandle first = Open(path);
    UniqueHandle second = Open(path, 0);
    bus.WaitFor(camera, vcam::Counter::kOpens, 2, kPatience);
    EXPECT_EQ(bus.Counters(camera).closes, 0u);
    Transfer read = ReadIn(Read6(0, 1));
    ASSERT_EQ(read.Run(first.get()), 0u);
    bus.WaitFor(camera, vcam::Counter::kRequests, 1, kPatience);
    first.reset();
    bus.WaitFor(camera, vcam::Counter::kCloses, 1, kPatience);
    second.reset();
    bus.WaitFor(camera, vcam::Counter::kCloses, 2, kPatience);
    EXPECT_EQ(bus.Counters(camera).opens, 2u);
    EXPECT_EQ(bus.Counters(camera).requests, 1u);
}

TEST_F(VirtualCamera, WaitingEndsWithTheEventTheTimeoutOrTheCamera) {
    PlugAndOpen();
    EXPECT_EQ(CodeThrownBy([&] { bus.WaitForPending(id, 1, 50ms); }), ERROR_TIMEOUT);
    SetHold();
    int code = -1;
    std::thread waiting(
        [&] { code = CodeThrownBy([&] { bus.WaitForPending(id, 2, kPatience); }); });
    Transfer first = ReadIn(Read6(0, 1));
    Transfer second = ReadIn(Read6(0, 1));
    EXPECT_EQ(first.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    EXPECT_EQ(second.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    waiting.join();
    EXPECT_EQ(code, 0);

    std::atomic<bool> started = false;
    std::thread orphan([&] {
        started = true;
        code = CodeThrownBy([&] { bus.WaitForPending(id, 3, kPatience); });
    });
    while (!started)
        std::this_thread::yield();
    bus.Unplug(id);
    orphan.join();
    EXPECT_EQ(code, ERROR_DEVICE_NOT_CONNECTED);
    first.Await();
    second.Await();
}

TEST_F(VirtualCamera, LongTimeoutsAreNotCutShort) {
    PlugAndOpen();
    SetHold();
    constexpr auto kFourGiga = std::chrono::milliseconds(std::int64_t{1} << 32);
    for (const auto timeout : {kFourGiga, kFourGiga - 1ms, std::chrono::milliseconds::max()}) {
        auto waiting = std::async(std::launch::async, [&] {
            return CodeThrownBy([&] { bus.WaitForPending(id, 1, timeout); });
        });
        EXPECT_EQ(waiting.wait_for(100ms), std::future_status::timeout) << timeout.count();
        Transfer read = ReadIn(Read6(0, 1));
        ASSERT_EQ(read.Issue(device.get()), DWORD{ERROR_IO_PENDING});
        EXPECT_EQ(waiting.get(), 0);
        bus.ReleaseAll(id);
        EXPECT_EQ(read.Await(), 0u);
    }
    EXPECT_EQ(CodeThrownBy([&] { bus.WaitForPending(id, 1, std::chrono::milliseconds::min()); }),
              ERROR_TIMEOUT);
}

TEST_F(VirtualCamera, MemoryIsReadAndWrittenInPlace) {
    vcam::PlugOptions options;
    options.blockCount = 3000;  // more than one control request moves
    const vcam::CameraId camera = bus.Plug(options);
    std::vector<std::byte> bytes(3000 * kBlock);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::byte>(i * 2654435761u >> 24);
    bus.WriteMemory(camera, 0, bytes);
    EXPECT_EQ(bus.ReadMemory(camera, 0, bytes.size()), bytes);
    EXPECT_EQ(bus.ReadMemory(camera, 777, 3)[1], bytes[778]);
    EXPECT_TRUE(bus.ReadMemory(camera, bytes.size(), 0).empty());
    EXPECT_EQ(CodeThrownBy([&] { bus.ReadMemory(camera, bytes.size() - 1, 2); }),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CodeThrownBy([&] { bus.ReadMemory(camera, ~std::uint64_t{0}, 2); }),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(
        CodeThrownBy([&] { bus.WriteMemory(camera, bytes.size() - 1, std::vector<std::byte>(2)); }),
        ERROR_INVALID_PARAMETER);
}

}  // namespace
}  // namespace camera_test
