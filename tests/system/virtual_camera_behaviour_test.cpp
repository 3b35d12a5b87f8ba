// The behaviour that a test sets: held, delayed, failed and short answers.

#include <chrono>
#include <memory>
#include <vector>

#include "virtual_camera_fixture.h"

namespace camera_test {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr vcam::NtStatus kStatusIoDeviceError = static_cast<vcam::NtStatus>(0xC0000185);
constexpr vcam::NtStatus kStatusBufferOverflow = static_cast<vcam::NtStatus>(0x80000005);
constexpr vcam::NtStatus kStatusPending = 0x103;

TEST_F(VirtualCamera, HeldRequestsEndExactlyWhenReleasedInAnyOrder) {
    PlugAndOpen();
    for (std::uint8_t i = 0; i < 4; ++i)
        bus.WriteMemory(id, i * kBlock, std::vector(512, std::byte(0x10 + i)));
    SetHold();
    std::vector<std::unique_ptr<Transfer>> reads;
    for (std::uint8_t i = 0; i < 4; ++i) {
        reads.push_back(std::make_unique<Transfer>(UCHAR{SCSI_IOCTL_DATA_IN}, Read6(i, 1), 512));
        ASSERT_EQ(reads.back()->Issue(device.get()), DWORD{ERROR_IO_PENDING});
    }
    bus.WaitForPending(id, 4, kPatience);
    for (const std::size_t i : {2u, 0u, 3u, 1u}) {
        EXPECT_TRUE(reads[i]->IsPending());
        bus.Release(id, i + 1u);  // sequence numbers count from 1
        ASSERT_EQ(reads[i]->Await(), 0u);
        EXPECT_EQ(reads[i]->DataReturned(), 512u);
        EXPECT_EQ(reads[i]->Data()[0], 0x10 + i);
    }
    EXPECT_EQ(CodeThrownBy([&] { bus.Release(id, 2); }), ERROR_NOT_FOUND);
    EXPECT_EQ(bus.Counters(id).pending, 0u);
}

TEST_F(VirtualCamera, ReleaseAllEndsWhatIsHeldAndLaterRequestsAreHeldAgain) {
    PlugAndOpen();
    SetHold();
    Transfer first = ReadIn(Read6(0, 1));
    Transfer second = ReadIn(Read6(1, 1));
    ASSERT_EQ(first.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    ASSERT_EQ(second.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 2, kPatience);
    bus.ReleaseAll(id);
    EXPECT_EQ(first.Await(), 0u);
    EXPECT_EQ(second.Await(), 0u);

    Transfer third = ReadIn(Read6(2, 1));
    ASSERT_EQ(third.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 1, kPatience);
    Set({});  // those that are held already stay so
    Transfer fourth = ReadIn(Read6(3, 1));
    EXPECT_EQ(fourth.Run(device.get()), 0u);
    EXPECT_TRUE(third.IsPending());
    bus.ReleaseAll(id);
    EXPECT_EQ(third.Await(), 0u);
}

TEST_F(VirtualCamera, DelayedRequestIsPendingUntilItsTime) {
    PlugAndOpen();
    vcam::Behaviour slow;
    slow.delay = 400ms;
    Set(slow);
    const auto start = steady_clock::now();
    Transfer late = ReadIn(Read6(0, 1));
    ASSERT_EQ(late.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    EXPECT_LT(steady_clock::now() - start, 300ms);  // the call itself does not wait

    vcam::Behaviour quicker;
    quicker.delay = 50ms;
    Set(quicker);
    Transfer early = ReadIn(Read6(0, 1));
    ASSERT_EQ(early.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    EXPECT_EQ(early.Await(), 0u);
    EXPECT_TRUE(late.IsPending());  // a shorter delay overtakes
    EXPECT_EQ(late.Await(), 0u);
    EXPECT_GE(steady_clock::now() - start, 395ms);
    EXPECT_EQ(late.DataReturned(), 512u);
}

TEST_F(VirtualCamera, BlockedRequestKeepsItsCallerWaiting) {
    PlugAndOpen();
    vcam::Behaviour blocking;
    blocking.block = 300ms;
    Set(blocking);
    const auto start = steady_clock::now();
    Transfer read = ReadIn(Read6(0, 1));
    read.Issue(device.get());
    EXPECT_GE(steady_clock::now() - start, 295ms);
    EXPECT_EQ(read.Await(), 0u);
    EXPECT_EQ(read.DataReturned(), 512u);
    blocking.block = 3'600'001ms;
    EXPECT_EQ(CodeThrownBy([&] { Set(blocking); }), ERROR_INVALID_PARAMETER);
}

TEST_F(VirtualCamera, CancelledRequestEndsAndIsNotCarriedOut) {
    PlugAndOpen();
    SetHold();
    Transfer write(SCSI_IOCTL_DATA_OUT, Write6(0, 1), 512);
    Transfer other(SCSI_IOCTL_DATA_OUT, Write6(1, 1), 512);
    std::fill_n(write.Data(), 512, std::uint8_t{0xaa});
    std::fill_n(other.Data(), 512, std::uint8_t{0xbb});
    ASSERT_EQ(write.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    ASSERT_EQ(other.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 2, kPatience);
    ASSERT_TRUE(::CancelIoEx(device.get(), &write.overlapped));
    EXPECT_EQ(write.Await(), DWORD{ERROR_OPERATION_ABORTED});
    EXPECT_TRUE(other.IsPending());
    EXPECT_EQ(bus.Counters(id).pending, 1u);
    EXPECT_EQ(CodeThrownBy([&] { bus.Release(id, 1); }), ERROR_NOT_FOUND);
    bus.Release(id, 2);
    EXPECT_EQ(other.Await(), 0u);
    EXPECT_EQ(bus.ReadMemory(id, 0, 1)[0], std::byte{0});
    EXPECT_EQ(bus.ReadMemory(id, 512, 1)[0], std::byte{0xbb});
}

TEST_F(VirtualCamera, RequestThatIgnoresCancelEndsNormally) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.hold = true;
    behaviour.ignoreCancel = true;
    Set(behaviour);
    Transfer read = ReadIn(Read6(0, 1));
    ASSERT_EQ(read.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 1, kPatience);
    ::CancelIoEx(device.get(), &read.overlapped);
    EXPECT_EQ(bus.Counters(id).pending, 1u);
    EXPECT_TRUE(read.IsPending());
    bus.ReleaseAll(id);
    EXPECT_EQ(read.Await(), 0u);
    EXPECT_EQ(read.DataReturned(), 512u);
}

TEST_F(VirtualCamera, ImmediateStatusFailsTheCallItself) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.immediateStatus = kStatusIoDeviceError;
    Set(behaviour);
    Transfer failing = ReadIn(Read6(0, 1));
    EXPECT_EQ(failing.Issue(device.get()), DWORD{ERROR_IO_DEVICE});
    behaviour.immediateStatus = kStatusBufferOverflow;
    Set(behaviour);
    Transfer warned = ReadIn(Read6(0, 1));
    EXPECT_EQ(warned.Issue(device.get()), DWORD{ERROR_MORE_DATA});
    EXPECT_EQ(bus.Counters(id).requests, 2u);
    EXPECT_EQ(bus.LastRequests(id).size(), 2u);

    behaviour.immediateStatus = kStatusPending;  // no request can end with "pending"
    EXPECT_EQ(CodeThrownBy([&] { Set(behaviour); }), ERROR_INVALID_PARAMETER);
}

TEST_F(VirtualCamera, CompletionStatusComesAfterTheRequestWasPending) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.completionStatus = kStatusIoDeviceError;
    Set(behaviour);
    Transfer plain = ReadIn(Read6(0, 1));
    EXPECT_EQ(plain.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    EXPECT_EQ(plain.Await(), DWORD{ERROR_IO_DEVICE});

    behaviour.hold = true;
    Set(behaviour);
    Transfer held = ReadIn(Read6(0, 1));
    EXPECT_EQ(held.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 1, kPatience);
    bus.ReleaseAll(id);
    EXPECT_EQ(held.Await(), DWORD{ERROR_IO_DEVICE});
}

TEST_F(VirtualCamera, GivenScsiStatusAnswersEveryCommandAndCarriesNothingOut) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.scsiStatus = 8;  // BUSY
    Set(behaviour);
    Transfer write(SCSI_IOCTL_DATA_OUT, Write6(0, 1), 512);
    std::fill_n(write.Data(), 512, std::uint8_t{0xaa});
    ASSERT_EQ(write.Run(device.get()), 0u);
    EXPECT_EQ(write.Header().ScsiStatus, 8);
    EXPECT_EQ(bus.ReadMemory(id, 0, 1)[0], std::byte{0});
    Transfer read = ReadIn(Read6(0, 1));
    ASSERT_EQ(read.Run(device.get()), 0u);
    EXPECT_EQ(read.Header().ScsiStatus, 8);
    EXPECT_EQ(read.DataReturned(), 0u);
}

TEST_F(VirtualCamera, AnswersCanBeShort) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.maximumDataBytes = 100;
    Set(behaviour);
    Transfer read = ReadIn(Read6(0, 1));
    ASSERT_EQ(read.Run(device.get()), 0u);
    EXPECT_EQ(read.Header().ScsiStatus, kGood);
    EXPECT_EQ(read.DataReturned(), 100u);

    behaviour = {};
    behaviour.returnedBytes = 12;  // not even its own header
    Set(behaviour);
    Transfer tiny = ReadIn(Read6(0, 1));
    ASSERT_EQ(tiny.Run(device.get()), 0u);
    EXPECT_EQ(tiny.returned, 12u);
    behaviour.returnedBytes = 1'000'000;
    Set(behaviour);
    Transfer huge = ReadIn(Read6(0, 1), 512);
    ASSERT_EQ(huge.Run(device.get()), 0u);
    EXPECT_EQ(huge.returned, 577u);
}

}  // namespace
}  // namespace camera_test
