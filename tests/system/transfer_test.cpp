// One transfer at a time: the block that reaches the driver, and the answer for each way in which
// the transfer can end.

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <numeric>
#include <span>
#include <string>

#include <gtest/gtest.h>

#include "transfer_fixture.h"

namespace system_test {
namespace {

/// One request, and the length of the data phase that it leads to.
struct BlockCase {
    std::uint32_t messageType;
    std::uint32_t extra;  // bytes of the body behind the command
    std::uint32_t transferLength;
    std::uint8_t dataIn;  // direction in the system's record
};

class PassThroughBlock : public TransferTest, public testing::WithParamInterface<BlockCase> {};

void Put(Bytes& block, std::size_t offset, std::uint32_t value, std::size_t size) {
    std::memcpy(block.data() + offset, &value, size);
}

TEST_P(PassThroughBlock, ReachesTheDriverByteByByte) {
    const auto [messageType, extra, transferLength, dataIn] = GetParam();
    constexpr std::uint32_t kRequestId = 0xA1B2C3D4;
    const Bytes data = Pattern(extra);
    Cdb cdb;  // all 16 bytes are carried, although the length given is 8
    std::iota(reinterpret_cast<std::uint8_t*>(cdb.data()),
              reinterpret_cast<std::uint8_t*>(cdb.data()) + cdb.size(), std::uint8_t{0xE1});
    RawClient client = Connect();
    // The first leaves its data in the service's heap, where the second must not pick it up.
    for (const std::uint32_t type : {std::uint32_t{kTransferOut}, messageType}) {
        EXPECT_EQ(client.Ask(type, kRequestId, kCamera, cdb, data),
                  Failed(kRequestId, kCamera));  // no camera knows this command
    }

    Bytes expected(65 + transferLength);
    Put(expected, 0, 56, 2);  // Length
    Put(expected, 6, 8, 1);   // CdbLength
    Put(expected, 8, dataIn, 1);
    Put(expected, 12, transferLength, 4);
    Put(expected, 16, 100, 4);  // TimeOutValue
    Put(expected, 24, 65, 4);   // DataBufferOffset
    std::copy(cdb.begin(), cdb.end(), expected.begin() + 36);
    Put(expected, 56, kRequestId, 4);
    Put(expected, 60, kCamera, 4);
    Put(expected, 64, messageType == kTransferIn ? 1 : 0, 1);
    if (messageType == kTransferOut)
        std::copy(data.begin(), data.end(), expected.begin() + 65);

    vcam::Request request = camera.LastRequest();
    EXPECT_EQ(request.inputLength, expected.size());
    EXPECT_EQ(request.outputLength, expected.size());
    if (messageType == kTransferIn) {
        // The driver fills the data area; its content before that does not matter.
        request.block.resize(65);
        expected.resize(65);
    }
    EXPECT_EQ(request.block, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, PassThroughBlock,
    testing::Values(BlockCase{kTransferOut, 0, 0, 0}, BlockCase{kTransferOut, 1, 1, 0},
                    BlockCase{kTransferOut, 512, 512, 0}, BlockCase{kTransferOut, 65536, 65536, 0},
                    BlockCase{kTransferIn, 0, 65536, 1}, BlockCase{kTransferIn, 84, 65536, 1},
                    BlockCase{kTransferNoData, 0, 0, 2}, BlockCase{kTransferNoData, 1, 1, 2},
                    BlockCase{kTransferNoData, 512, 512, 2},
                    BlockCase{kTransferNoData, 65536, 65536, 2}),
    [](const auto& request) {
        return "Type" + std::to_string(request.param.messageType) + "With" +
               std::to_string(request.param.extra) + "Bytes";
    });

// --- data ---

TEST_F(TransferTest, WrittenBlocksReachTheCamerasMemoryAndCanBeReadBack) {
    const Bytes data = Pattern(65536);
    RawClient client = Connect();
    EXPECT_EQ(client.Ask(kTransferOut, 1, kCamera, Write6(5, 128), data), Succeeded(1, kCamera));
    EXPECT_EQ(bus.ReadMemory(camera.Id(), 5 * vcam::kBlockSize, data.size()), data);
    EXPECT_EQ(client.Ask(kTransferIn, 2, kCamera, Read6(5, 128)), Succeeded(2, kCamera, data));
}

TEST_F(TransferTest, AnswerHasAsManyBytesAsTheCameraReturned) {
    const Bytes data = Pattern(65536);
    bus.WriteMemory(camera.Id(), 0, data);
    RawClient client = Connect();
    for (const std::uint32_t length : {0u, 1u, 511u, 512u, 65535u, 65536u}) {
        vcam::Behaviour behaviour;
        behaviour.maximumDataBytes = length;
        camera.Set(behaviour);
        EXPECT_EQ(client.Ask(kTransferIn, length, kCamera, Read6(0, 0)),
                  Succeeded(length, kCamera, Bytes(data.begin(), data.begin() + length)));
    }
}

TEST_F(TransferTest, DriverThatCountsLessThanTheHeadOfTheBlockReturnedNoData) {
    RawClient client = Connect();
    for (const std::uint32_t returned : {0u, 56u, 64u, 65u}) {
        vcam::Behaviour behaviour;
        behaviour.returnedBytes = returned;
        camera.Set(behaviour);
        EXPECT_EQ(client.Ask(kTransferIn, returned, kCamera, Inquiry()),
                  Succeeded(returned, kCamera));
    }
}

TEST_F(TransferTest, OnlyTransferInIsAnsweredWithData) {
    RawClient client = Connect();
    const Bytes data = Pattern(512);
    EXPECT_EQ(client.Ask(kTransferOut, 1, kCamera, Write6(0, 1), data), Succeeded(1, kCamera));
    EXPECT_EQ(client.Ask(kTransferNoData, 2, kCamera, TestUnitReady(), data),
              Succeeded(2, kCamera));
}

// --- ways to fail ---

TEST_F(TransferTest, ScsiStatusFailsTheRequestAndKeepsTheCamera) {
    RawClient client = Connect();
    for (const std::uint8_t status : std::initializer_list<std::uint8_t>{0x02, 0x08, 0x18, 0xFF}) {
        camera.Set(AnswersScsiStatus(status));
        EXPECT_EQ(client.Ask(kTransferIn, status, kCamera, Inquiry()), Failed(status, kCamera));
    }
    camera.Set({});
    EXPECT_EQ(client.Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
    EXPECT_TRUE(client.RoundTrip());
}

TEST_F(TransferTest, CompletionErrorFailsTheRequestAndKeepsTheCamera) {
    RawClient client = Connect();
    camera.Set(CompletesWith(kStatusIoDeviceError));
    EXPECT_EQ(client.Ask(kTransferIn, 1, kCamera, Inquiry()), Failed(1, kCamera));
    camera.Set({});
    EXPECT_EQ(client.Ask(kTransferNoData, 2, kCamera, TestUnitReady()), Succeeded(2, kCamera));

    service.Output().WaitFor("GetQueuedCompletionStatus returned FALSE: 1117");
    const std::string key = service.Output().WaitFor("CompletionKey: 0x")[0].substr(17);
    EXPECT_EQ(key.find_first_not_of("0123456789"), std::string::npos) << key;
    EXPECT_GT(std::stoul(key), 10000u);  // the handle's value and 10000, in decimal
    EXPECT_TRUE(client.RoundTrip());     // no camera is reported as gone
}

TEST_F(TransferTest, AbortedTransferIsNeverAnsweredAndTheServiceGoesOn) {
    RawClient client = Connect();
    camera.Set(CompletesWith(kStatusCancelled));
    client.SendRequest(kTransferIn, 1, kCamera, Inquiry());
    service.Output().WaitFor("GetQueuedCompletionStatus returned FALSE: 995");
    service.Output().WaitFor("CompletionKey: 0x");
    EXPECT_TRUE(client.RoundTrip());
    camera.Set({});
    EXPECT_EQ(client.Ask(kTransferNoData, 2, kCamera, TestUnitReady()), Succeeded(2, kCamera));
}

/// A status with which the driver refuses a request at once.
class ImmediateFailure : public TransferTest, public testing::WithParamInterface<vcam::NtStatus> {};

TEST_P(ImmediateFailure, FailsTheRequestFirstAndThenDetachesTheCamera) {
    RawClient client = Connect();
    camera.Set(FailsAtOnce(GetParam()));
    EXPECT_EQ(client.Ask(kTransferIn, 1, kCamera, Inquiry()), Failed(1, kCamera));
    EXPECT_EQ(client.ReceiveMessage(), Detached(kCamera));
    EXPECT_TRUE(client.RoundTrip());  // one answer, and one notification

    // The camera is gone from the table, for good.
    camera.Set({});
    RawClient next;
    EXPECT_TRUE(next.RoundTrip());

    // This session has it still attached, and no call is made for it any more.
    const std::uint64_t requests = camera.Counters().requests;
    EXPECT_EQ(client.Ask(kTransferIn, 2, kCamera, Inquiry()), Failed(2, kCamera));
    EXPECT_TRUE(client.RoundTrip());
    EXPECT_EQ(camera.Counters().requests, requests);
}

// An error, an abort, and a warning, for which a packet comes in spite of the failure.
INSTANTIATE_TEST_SUITE_P(Statuses, ImmediateFailure,
                         testing::Values(kStatusIoDeviceError, kStatusCancelled,
                                         kStatusBufferOverflow),
                         [](const auto& status) {
                             return "Status" +
                                    std::to_string(static_cast<std::uint32_t>(status.param));
                         });

TEST_F(TransferTest, CameraGivenUpFailsForEveryClientThatHasIt) {
    RawClient mainCommunicator = Connect();
    RawClient requester = Connect();
    RawClient holder = Connect();
    EXPECT_EQ(holder.Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));

    camera.Set(FailsAtOnce(kStatusIoDeviceError));
    EXPECT_EQ(requester.Ask(kTransferNoData, 2, kCamera, TestUnitReady()), Failed(2, kCamera));
    EXPECT_EQ(mainCommunicator.ReceiveMessage(), Detached(kCamera));
    camera.Set({});

    const std::uint64_t requests = camera.Counters().requests;
    EXPECT_EQ(holder.Ask(kTransferNoData, 3, kCamera, TestUnitReady()), Failed(3, kCamera));
    EXPECT_EQ(requester.Ask(kTransferNoData, 4, kCamera, TestUnitReady()), Failed(4, kCamera));
    EXPECT_EQ(camera.Counters().requests, requests);
    // Camera pipes are not told, and no client is told twice.
    EXPECT_TRUE(holder.RoundTrip());
    EXPECT_TRUE(requester.RoundTrip());
    EXPECT_TRUE(mainCommunicator.RoundTrip());

    // To one that has not attached it, it is a camera like any that never was.
    mainCommunicator.SendRequest(kTransferNoData, 5, kCamera, TestUnitReady());
    EXPECT_EQ(mainCommunicator.ReceiveUntilClosed(), Bytes());
    service.Errors().WaitFor("Exception: Bad camera in request.");
    EXPECT_EQ(service.WaitForEnd(), 0u);
}

TEST_F(TransferTest, CameraGivenUpWithoutAMainCommunicatorIsSaidOnStandardError) {
    RawClient mainCommunicator = Connect();
    RawClient client = Connect();
    EXPECT_EQ(mainCommunicator.Ask(kTransferNoData, 1, kCamera, TestUnitReady()),
              Succeeded(1, kCamera));
    mainCommunicator.Leave();
    service.Output().WaitFor("Removing main communicator.");

    camera.Set(FailsAtOnce(kStatusIoDeviceError));
    EXPECT_EQ(client.Ask(kTransferNoData, 2, kCamera, TestUnitReady()), Failed(2, kCamera));
    service.Errors().WaitFor("No main communicator found on device detach.");
    EXPECT_TRUE(client.RoundTrip());
}

// Which of the two depends on whether the service has heard of the unplugging.
TEST_F(TransferTest, RequestForACameraThatIsNoLongerThereEndsTheRun) {
    RawClient client = Connect();
    camera.Unplug();
    client.SendRequest(kTransferNoData, 1, kCamera, TestUnitReady());
    const Bytes told = client.ReceiveUntilClosed();
    EXPECT_TRUE(told.empty() || told == HeaderBytes(Detached(kCamera).header));
    EXPECT_EQ(service.WaitForEnd(), 0u);
    std::string text;
    for (const std::string& line : service.ErrorLines())
        text += line + '\n';
    EXPECT_TRUE(text.find("Exception: Device::Open() failed.  GetLastError() = 0x") != text.npos ||
                text.find("Exception: Bad camera in request.") != text.npos)
        << text;
}

}  // namespace
}  // namespace system_test
