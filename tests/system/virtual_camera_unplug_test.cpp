// Unplugging a virtual camera, and closing its handles, with requests pending.

#include <chrono>
#include <memory>
#include <vector>

#include "virtual_camera_fixture.h"

namespace camera_test {
namespace {

using namespace std::chrono_literals;

TEST_F(VirtualCamera, UnplugEndsEverythingThatIsPending) {
    PlugAndOpen();
    SetHold();
    std::vector<std::unique_ptr<Transfer>> reads;
    for (int i = 0; i < 8; ++i) {
        if (i == 4) {
            vcam::Behaviour slow;
            slow.delay = 1h;
            slow.ignoreCancel = true;
            Set(slow);
        }
        reads.push_back(std::make_unique<Transfer>(UCHAR{SCSI_IOCTL_DATA_IN}, Read6(0, 1), 512));
        ASSERT_EQ(reads.back()->Issue(device.get()), DWORD{ERROR_IO_PENDING});
    }
    bus.WaitForPending(id, 8, kPatience);
    bus.Unplug(id);
    for (const auto& read : reads)
        EXPECT_EQ(read->Await(), DWORD{ERROR_DEVICE_NOT_CONNECTED});
    Transfer late = ReadIn(Read6(0, 1));
    EXPECT_EQ(late.Issue(device.get()), DWORD{ERROR_DEVICE_NOT_CONNECTED});
}

TEST_F(VirtualCamera, ClosingTheHandleDoesNotEndPendingRequests) {
    PlugAndOpen();
    const UniqueHandle port(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1));
    ASSERT_EQ(::CreateIoCompletionPort(device.get(), port.get(), 7, 0), port.get());
    SetHold();
    Transfer read = ReadIn(Read6(0, 1));
    read.overlapped.hEvent = nullptr;
    ASSERT_EQ(read.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 1, kPatience);
    device.reset();

    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    EXPECT_FALSE(::GetQueuedCompletionStatus(port.get(), &bytes, &key, &overlapped, 100));
    ASSERT_EQ(overlapped, nullptr) << "ended by the close";
    EXPECT_EQ(bus.Counters(id).pending, 1u);
    bus.ReleaseAll(id);
    EXPECT_TRUE(::GetQueuedCompletionStatus(port.get(), &bytes, &key, &overlapped, 10'000));
    EXPECT_EQ(overlapped, &read.overlapped);
    EXPECT_EQ(bytes, kDataOffset + 512);
}

TEST_F(VirtualCamera, HandleMayOutliveTheCameraAndTheNextOneWithItsPath) {
    vcam::PlugOptions options;
    options.instanceId = L"Again";
    PlugAndOpen(options);
    bus.Unplug(id);
    const vcam::CameraId next = bus.Plug(options);
    const UniqueHandle fresh = Open(bus.InterfacePath(next));
    ASSERT_TRUE(fresh) << ::GetLastError();
    Transfer old = ReadIn(Read6(0, 1));
    EXPECT_EQ(old.Run(device.get()), DWORD{ERROR_DEVICE_NOT_CONNECTED});
    Transfer read = ReadIn(Read6(0, 1));
    EXPECT_EQ(read.Run(fresh.get()), 0u);
    bus.Unplug(next);
    device.reset();
}

}  // namespace
}  // namespace camera_test
