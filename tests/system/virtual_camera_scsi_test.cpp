// The SCSI commands of a virtual camera.

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "support/camera_setup.h"
#include "virtual_camera_fixture.h"

namespace camera_test {
namespace {

TEST_F(VirtualCamera, InquiryShowsTheStringsCutAndPadded) {
    vcam::PlugOptions options;
    options.vendor = "Orvik";
    options.product = "A product name that is too long";
    options.revision = std::nullopt;
    PlugAndOpen(options);
    Transfer inquiry = ReadIn(Cdb({0x12, 0, 0, 0, 96}), 96);
    ASSERT_EQ(inquiry.Run(device.get()), 0u);
    EXPECT_EQ(inquiry.Header().ScsiStatus, kGood);
    ASSERT_EQ(inquiry.DataReturned(), 36u);
    EXPECT_EQ(inquiry.Header().DataTransferLength, 36u);
    EXPECT_EQ(inquiry.Data()[0], 0);  // direct access
    EXPECT_EQ(std::string(inquiry.Data() + 8, inquiry.Data() + 36), "Orvik   A product name t    ");

    Transfer part = ReadIn(Cdb({0x12, 0, 0, 0, 5}), 96);
    ASSERT_EQ(part.Run(device.get()), 0u);
    EXPECT_EQ(part.DataReturned(), 5u);
}

TEST_F(VirtualCamera, ReadCapacityAndTestUnitReady) {
    vcam::PlugOptions options;
    options.blockCount = 0x12345;
    PlugAndOpen(options);
    Transfer capacity = ReadIn(Cdb({0x25}), 8);
    ASSERT_EQ(capacity.Run(device.get()), 0u);
    ASSERT_EQ(capacity.DataReturned(), 8u);
    const std::array<std::uint8_t, 8> expected = {0, 0x01, 0x23, 0x44, 0, 0, 2, 0};
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), capacity.Data()));

    Transfer ready(SCSI_IOCTL_DATA_UNSPECIFIED, Cdb({0}), 0);
    ASSERT_EQ(ready.Run(device.get()), 0u);
    EXPECT_EQ(ready.Header().ScsiStatus, kGood);
}

TEST_F(VirtualCamera, WrittenBlocksAreInMemoryAndAreReadBack) {
    PlugAndOpen();
    constexpr std::size_t kLength = 3 * kBlock;
    Transfer write(SCSI_IOCTL_DATA_OUT, Write6(1000, 3), kLength);
    for (std::size_t i = 0; i < kLength; ++i)
        write.Data()[i] = static_cast<std::uint8_t>(i * 31 + 7);
    ASSERT_EQ(write.Run(device.get()), 0u);
    EXPECT_EQ(write.Header().ScsiStatus, kGood);
    EXPECT_EQ(write.Header().DataTransferLength, kLength);

    const std::vector<std::byte> memory = bus.ReadMemory(id, 999 * kBlock, 5 * kBlock);
    EXPECT_EQ(std::memcmp(memory.data() + kBlock, write.Data(), kLength), 0);
    EXPECT_EQ(memory[kBlock - 1], std::byte{0});
    EXPECT_EQ(memory[4 * kBlock], std::byte{0});

    Transfer read = ReadIn(Read6(1000, 3));
    ASSERT_EQ(read.Run(device.get()), 0u);
    ASSERT_EQ(read.DataReturned(), kLength);
    EXPECT_EQ(std::memcmp(read.Data(), write.Data(), kLength), 0);
}

TEST_F(VirtualCamera, ReadOfZeroBlocksMeans256CutToTheBuffer) {
    PlugAndOpen(WithTransferLimit(200000));
    std::vector<std::byte> bytes(256 * kBlock);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::byte>(i / 251);
    bus.WriteMemory(id, 0, bytes);
    Transfer cut = ReadIn(Read6(0, 0), 65536);
    ASSERT_EQ(cut.Run(device.get()), 0u);
    ASSERT_EQ(cut.DataReturned(), 65536u);
    EXPECT_EQ(std::memcmp(cut.Data(), bytes.data(), 65536), 0);
    Transfer whole = ReadIn(Read6(0, 0), 200000);
    ASSERT_EQ(whole.Run(device.get()), 0u);
    ASSERT_EQ(whole.DataReturned(), bytes.size());
    EXPECT_EQ(std::memcmp(whole.Data(), bytes.data(), bytes.size()), 0);
}

TEST_F(VirtualCamera, MoreDataThanTheHostAdapterTransfersIsRefusedAtOnce) {
    PlugAndOpen();
    for (const UCHAR direction : std::array<UCHAR, 3>{SCSI_IOCTL_DATA_OUT, SCSI_IOCTL_DATA_IN,
                                                      SCSI_IOCTL_DATA_UNSPECIFIED}) {
        Transfer longest(direction, Cdb({0}), 65536);
        EXPECT_EQ(longest.Run(device.get()), 0u) << int{direction};
        Transfer tooLong(direction, Cdb({0}), 65537);
        EXPECT_EQ(tooLong.Issue(device.get()), DWORD{ERROR_INVALID_PARAMETER}) << int{direction};
    }
    bus.Unplug(id);
    PlugAndOpen(WithTransferLimit(1000));
    Transfer longest = ReadIn(Read6(0, 1), 1000);
    EXPECT_EQ(longest.Run(device.get()), 0u);
    Transfer tooLong = ReadIn(Read6(0, 1), 1001);
    EXPECT_EQ(tooLong.Issue(device.get()), DWORD{ERROR_INVALID_PARAMETER});
}

TEST_F(VirtualCamera, CheckConditionLeavesSenseDataForOneRequestSense) {
    vcam::PlugOptions options;
    options.blockCount = 10;
    PlugAndOpen(options);
    const auto sense = [&] {
        Transfer request = ReadIn(Cdb({0x03, 0, 0, 0, 18}), 18);
        EXPECT_EQ(request.Run(device.get()), 0u);
        EXPECT_EQ(request.DataReturned(), 18u);
        return std::array{request.Data()[2], request.Data()[12]};
    };
    EXPECT_EQ(sense(), (std::array<std::uint8_t, 2>{0, 0}));

    Transfer beyond = ReadIn(Read6(9, 2));
    ASSERT_EQ(beyond.Run(device.get()), 0u);
    EXPECT_EQ(beyond.Header().ScsiStatus, kCheckCondition);
    EXPECT_EQ(beyond.DataReturned(), 0u);
    EXPECT_EQ(sense(), (std::array<std::uint8_t, 2>{0x05, 0x21}));
    EXPECT_EQ(sense(), (std::array<std::uint8_t, 2>{0, 0}));

    for (const std::uint8_t code : std::array<std::uint8_t, 3>{0x28, 0x5a, 0xff}) {
        Transfer unknown = ReadIn(Cdb({code}));
        ASSERT_EQ(unknown.Run(device.get()), 0u);
        EXPECT_EQ(unknown.Header().ScsiStatus, kCheckCondition) << int{code};
        EXPECT_EQ(sense(), (std::array<std::uint8_t, 2>{0x05, 0x20}));
    }
}

TEST_F(VirtualCamera, HostileBlocksAreRefusedAndHarmNothing) {
    PlugAndOpen();
    const auto errorFor = [&](UCHAR direction, const std::function<void(SCSI_PASS_THROUGH&)>& f) {
        Transfer transfer(direction, Read6(0, 1), 512);
        f(transfer.Header());
        const DWORD error = transfer.Issue(device.get());
        return error == ERROR_IO_PENDING ? transfer.Await() : error;
    };
    constexpr DWORD kRefused = ERROR_INVALID_PARAMETER;
    for (const UCHAR direction : std::array<UCHAR, 2>{SCSI_IOCTL_DATA_IN, SCSI_IOCTL_DATA_OUT}) {
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataTransferLength = 513; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataTransferLength = ~0u; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataBufferOffset = 55; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataBufferOffset = 66; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataBufferOffset = 578; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataBufferOffset = ~ULONG_PTR{0}; }),
                  kRefused);
        EXPECT_EQ(
            errorFor(direction, [](auto& h) { h.DataBufferOffset = (ULONG_PTR{1} << 32) + 65; }),
            kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.Length = 44; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.CdbLength = 0; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.CdbLength = 17; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataIn = 3; }), kRefused);
    }
    Transfer transfer = ReadIn(Read6(0, 1), 512);
    for (const DWORD length : {0u, 1u, 55u, 64u, 576u}) {
        EXPECT_EQ(transfer.Issue(device.get(), 577, length), kRefused) << length;
        EXPECT_EQ(transfer.Issue(device.get(), std::min(length, 55ul), 577), kRefused) << length;
    }
    EXPECT_EQ(transfer.Run(device.get()), 0u);
    EXPECT_EQ(transfer.DataReturned(), 512u);
    EXPECT_EQ(bus.Counters(id).pending, 0u);
}

}  // namespace
}  // namespace camera_test
