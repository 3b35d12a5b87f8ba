// Transfers of a camera: the block that the driver gets, and how transfers fail.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <winioctl.h>

#include "device/windows_exception.h"
#include "device_fixture.h"
#include "guarded_heap.h"
#include "import_hook.h"

namespace {

/// The block up to the data, byte by byte.
Bytes ExpectedHead(std::uint8_t direction, std::uint32_t length, bool dataIn) {
    Bytes head(65);
    const auto put = [&head](std::size_t offset, std::uint64_t value, std::size_t size) {
        std::memcpy(head.data() + offset, &value, size);
    };
    put(0, 56, 2);  // Length
    put(6, 8, 1);   // CdbLength, whatever the command
    put(8, direction, 1);
    put(12, length, 4);  // DataTransferLength
    put(16, 100, 4);     // TimeOutValue, seconds
    put(24, 65, 8);      // DataBufferOffset
    const Bytes cdb = Pattern(16, 9);
    std::copy(cdb.begin(), cdb.end(), head.begin() + 36);
    put(56, 0x11223344, 4);
    put(60, 0x55667788, 4);
    put(64, dataIn ? 1 : 0, 1);
    return head;
}

TEST_F(DeviceTest, BlockReachesTheDriverByteByByte) {
    Device device = MakeDevice();
    device.Open();
    const struct {
        std::uint32_t type;
        std::uint8_t direction;
        bool dataIn;
    } cases[] = {
        {2, SCSI_IOCTL_DATA_OUT, false},          // kTransferOut
        {3, SCSI_IOCTL_DATA_IN, true},            // kTransferIn
        {4, SCSI_IOCTL_DATA_UNSPECIFIED, false},  // kTransferNoData
        {7, SCSI_IOCTL_DATA_OUT, false},          // unknown: as data-out
    };
    static_assert(SCSI_IOCTL_DATA_OUT == 0 && SCSI_IOCTL_DATA_IN == 1);
    static_assert(SCSI_IOCTL_DATA_UNSPECIFIED == 2);
    for (const auto& each : cases) {
        for (const std::int32_t length : {0, 1, 512, 65536}) {
            SCOPED_TRACE("type " + std::to_string(each.type) + ", length " +
                         std::to_string(length));
            const auto size = static_cast<std::uint32_t>(length);
            const Bytes data = Pattern(size, 4);
            const Bytes block = Send(device, Request(each.type, size), data, length);
            ASSERT_EQ(block.size(), 65 + data.size());
            EXPECT_EQ(Bytes(block.begin(), block.begin() + 65),
                      ExpectedHead(each.direction, size, each.dataIn));
            const Bytes area(block.begin() + 65, block.end());
            if (each.type == 2 || each.type == 7) {
                EXPECT_EQ(area, data);
            } else if (each.type == 4) {
                EXPECT_EQ(area, Bytes(size));
            } else if (length != 0) {
                EXPECT_NE(area, data) << "data of a read was copied";
            }
        }
    }
}

TEST_F(DeviceTest, ReadOf65536BytesAllocates65601AndCopiesNothing) {
    ORVIK_NEEDS_GUARDED_HEAP();
    Device device = MakeDevice();
    device.Open();
    const TransferRequest request = Request(3, 65536);
    bool done = false;
    auto* const operation = new IoOperation([&done](IoOperation* finished) {
        done = true;
        DiscardOperation(finished);
    });
    guarded_heap::AllocationRecord record;
    // From where nothing could be read.
    device.Transfer(operation, &request, reinterpret_cast<const std::byte*>(16), 65536);
    const std::vector<std::size_t> sizes = record.Stop();
    EXPECT_EQ(sizes, (std::vector<std::size_t>{65601}));
    port.DispatchUntil("the transfer", [&done] { return done; });
}

TEST_F(DeviceTest, TransferOfNothingAllocates65BytesAndReadsNoData) {
    ORVIK_NEEDS_GUARDED_HEAP();
    Device device = MakeDevice();
    device.Open();
    for (const std::uint32_t type : {2u, 3u, 4u, 7u}) {
        SCOPED_TRACE(type);
        const TransferRequest request = Request(type, 0);
        bool done = false;
        auto* const operation = new IoOperation([&done](IoOperation* finished) {
            done = true;
            DiscardOperation(finished);
        });
        guarded_heap::AllocationRecord record;
        device.Transfer(operation, &request, nullptr, 0);
        const std::vector<std::size_t> sizes = record.Stop();
        EXPECT_EQ(sizes, (std::vector<std::size_t>{65}));
        port.DispatchUntil("the transfer", [&done] { return done; });
    }
}

TEST_F(DeviceTest, RemovedDeviceRefusesTransfersAndStillOpens) {
    ORVIK_NEEDS_GUARDED_HEAP();
    Device device = MakeDevice();
    EXPECT_FALSE(device.Removed());
    device.SetRemoved();
    EXPECT_TRUE(device.Removed());
    EXPECT_NO_THROW(device.Open());
    IoOperation operation{IoCallback()};
    int marker = 0;
    operation.transferBuffer = &marker;
    const TransferRequest request = Request(2, 4);
    guarded_heap::AllocationRecord record;
    bool thrown = false;
    try {
        device.Transfer(&operation, &request, Pattern(4).data(), 4);
    } catch (const WindowsException&) {
        thrown = true;
    }
    const std::vector<std::size_t> sizes = record.Stop();
    EXPECT_TRUE(thrown);
    EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 69u), 0) << "a block was allocated";
    EXPECT_EQ(operation.transferBuffer, &marker) << "the operation was touched";
    EXPECT_EQ(bus.Counters(camera).requests, 0u);
}

TEST_F(DeviceTest, CallThatFailsAtOnceFreesTheBlockAndKeepsItsAddress) {
    ORVIK_NEEDS_GUARDED_HEAP();
    Device device = MakeDevice();
    device.Open();
    const std::size_t before = guarded_heap::LiveBlocks(577);
    for (const vcam::NtStatus status : {kStatusIoDeviceError, kStatusCancelled}) {
        bus.SetBehaviour(camera, FailsAtOnce(status));
        IoOperation operation{IoCallback()};
        const TransferRequest request = Request(2, 512);
        const Bytes data = Pattern(512);
        try {
            device.Transfer(&operation, &request, data.data(), 512);
            FAIL() << "no exception";
        } catch (const WindowsException& exception) {
            const char* const code = status == kStatusCancelled ? "0x3e3 (" : "0x45d (";
            EXPECT_EQ(std::string(exception.what())
                          .find(std::string("DeviceIoControl() failed.  GetLastError() = ") + code),
                      0u)
                << exception.what();
        }
        EXPECT_NE(operation.transferBuffer, nullptr);
        EXPECT_EQ(guarded_heap::LiveBlocks(577), before);
    }
    EXPECT_FALSE(device.Removed()) << "what a failure means is the caller's business";
}

TEST_F(DeviceTest, UnpluggedDeviceFailsItsTransfers) {
    Device device = MakeDevice();
    device.Open();
    bool done = false;
    std::uint32_t error = 0;
    bus.SetBehaviour(camera, Holds());
    auto* const operation = new IoOperation([&](IoOperation* finished) {
        error = finished->errorCode;
        done = true;
        DiscardOperation(finished);
    });
    const TransferRequest request = Request(3, 512);
    device.Transfer(operation, &request, nullptr, 512);
    bus.WaitForPending(camera, 1, kDeadline);
    bus.Unplug(camera);
    port.DispatchUntil("the transfer's end", [&done] { return done; });
    EXPECT_NE(error, 0u);
    IoOperation next{IoCallback()};
    EXPECT_THROW(device.Transfer(&next, &request, nullptr, 512), WindowsException);
    ForgetPlugged();
}

TEST_F(DeviceTest, DestroyedWithTransfersPendingTheyEndLaterByThemselves) {
    int done = 0;
    std::vector<std::uint32_t> errors;
    bus.SetBehaviour(camera, Holds());
    {
        Device device = MakeDevice();
        device.Open();
        const TransferRequest request = Request(3, 65536);
        for (int count = 0; count < 5; ++count) {
            auto* const operation = new IoOperation([&](IoOperation* finished) {
                ++done;
                errors.push_back(finished->errorCode);
                DiscardOperation(finished);
            });
            device.Transfer(operation, &request, nullptr, 65536);
        }
        bus.WaitForPending(camera, 5, kDeadline);
    }
    EXPECT_EQ(bus.Counters(camera).pending, 5u) << "closing cancels nothing";
    bus.ReleaseAll(camera);
    port.DispatchUntil("the transfers", [&done] { return done == 5; });
    EXPECT_EQ(errors, std::vector<std::uint32_t>(5));
    errors = std::vector<std::uint32_t>();
}

}  // namespace
