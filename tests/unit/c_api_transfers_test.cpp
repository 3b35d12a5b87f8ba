// The C interface: transfers and requests.

#include <cstddef>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "c_api_fixture.h"

namespace {

using namespace c_api_test;

class CApiTransfers : public CApi {};

/// Both kinds of clients; true: persistent.
class CApiRequests : public CApi {
protected:
    CApiRequests() { ConnectOrOpen(); }
};

INSTANTIATE_TEST_SUITE_P(Kinds, CApiRequests, testing::Bool(), NameOfKind);

TEST_F(CApiTransfers, InFillsTheBuffer) {
    Connect();
    Bytes data(ORVIK_TRANSFER_IN_LIMIT);
    const std::uint8_t cdb[] = {kSucceed, 64};
    std::uint32_t length = 0;
    EXPECT_EQ(orvik_transfer_in(client, camera, cdb, 2, data.data(), ORVIK_TRANSFER_IN_LIMIT,
                                &length, kMilliseconds),
              ORVIK_OK);
    EXPECT_EQ(length, 65536u);
    EXPECT_EQ(data, DataOf(64));
}

TEST_F(CApiTransfers, InSaysHowLongTheDataIsThatDoesNotFit) {
    Connect();
    Bytes data(1001);
    const std::uint8_t cdb[] = {kSucceed, 2};
    std::uint32_t length = 0;
    EXPECT_EQ(orvik_transfer_in(client, camera, cdb, 2, data.data(), 1000, &length, kMilliseconds),
              ORVIK_ERROR_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 2048u);
    Bytes expected = DataOf(2);
    expected.resize(1000);
    expected.push_back(std::byte{0});
    EXPECT_EQ(data, expected);
    EXPECT_EQ(orvik_transfer_in(client, camera, cdb, 1, nullptr, 0, &length, kMilliseconds),
              ORVIK_OK);
    EXPECT_EQ(length, 0u);
}

TEST_F(CApiTransfers, OutSendsTheCdbAndTheData) {
    Signal received;
    Bytes body;
    FakeService other([&](Peer& peer) {
        peer.Welcome({kCameraId});
        const Request request = peer.ReadRequest();
        body = request.body;
        EXPECT_EQ(request.header.messageType, std::uint32_t{kTransferOut});
        peer.Succeed(request);
        received.Set();
        peer.ReadToTheEnd();
    });
    const std::string name = ToUtf8(other.Name());
    options.pipe = name.c_str();
    Connect();
    const std::uint8_t cdb[] = {0x0A, 1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(orvik_transfer_out(client, camera, cdb, 8, "data", 4, kMilliseconds), ORVIK_OK);
    ASSERT_TRUE(received.Wait());
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(body.data()), body.size()),
              std::string("\x0A\1\2\3\4\5\6\7\0\0\0\0\0\0\0\0data", 20));
    Close();
}

TEST_F(CApiTransfers, OutIsLimitedByTheOption) {
    options.transfer_out_limit = 4;
    Connect();
    const std::uint8_t cdb[] = {kSucceed};
    EXPECT_EQ(orvik_transfer_out(client, camera, cdb, 1, "data", 4, kMilliseconds), ORVIK_OK);
    EXPECT_EQ(orvik_transfer_out(client, camera, cdb, 1, "data", 5, kMilliseconds),
              ORVIK_ERROR_INVALID_ARGUMENT);
}

TEST_P(CApiRequests, EndWithTheirData) {
    const std::uint8_t in[] = {kHold, 3};
    const std::uint8_t other[] = {kHold};
    Completion first;
    Completion second;
    Completion third;
    orvik_request* request = nullptr;
    EXPECT_EQ(
        orvik_start_in(client, camera, in, 2, Completion::Call, &first, ORVIK_NO_TIMEOUT, &request),
        ORVIK_OK);
    EXPECT_NE(request, nullptr);
    orvik_request_close(request);  // without effect on the request
    EXPECT_EQ(orvik_start_out(client, camera, other, 1, "data", 4, Completion::Call, &second,
                              ORVIK_NO_TIMEOUT, nullptr),
              ORVIK_OK);
    EXPECT_EQ(Start(kRelease, third), ORVIK_OK);
    EXPECT_EQ(first.Status(), ORVIK_OK);
    EXPECT_EQ(first.data, DataOf(3));
    EXPECT_EQ(second.Status(), ORVIK_OK);
    EXPECT_EQ(third.Status(), ORVIK_OK);
    EXPECT_TRUE(third.data.empty());
    EXPECT_EQ(third.text, "");
    EXPECT_EQ(third.systemCode, 0u);
}

TEST_P(CApiRequests, EndWithTheDescriptionAndTheSystemCodeOfTheirError) {
    Completion refused;
    EXPECT_EQ(Start(kRefuse, refused), ORVIK_OK);
    EXPECT_EQ(refused.Status(), ORVIK_ERROR_REFUSED);
    EXPECT_EQ(refused.text, "the command failed on camera 7");
    EXPECT_EQ(refused.systemCode, 0u);
    std::string lastError = "not read";
    Completion closed([&] { lastError = orvik_last_error_text(); });
    EXPECT_EQ(Start(kHangUp, closed), ORVIK_OK);
    EXPECT_EQ(closed.Status(), ORVIK_ERROR_SERVICE_GONE);
    EXPECT_NE(closed.text.find("(error 109)"), std::string::npos) << closed.text;
    EXPECT_EQ(closed.systemCode, DWORD{ERROR_BROKEN_PIPE});
    EXPECT_EQ(lastError, "") << "no call has failed on the client's thread";
}

TEST_F(CApiTransfers, AsynchronousOneEndsAtItsDeadline) {
    Connect();
    Completion completion;
    EXPECT_EQ(Start(kHold, completion, nullptr, 50), ORVIK_OK);
    EXPECT_EQ(completion.Status(), ORVIK_ERROR_TIMED_OUT);
    EXPECT_NE(completion.text.find("did not answer in time"), std::string::npos) << completion.text;
}

TEST_P(CApiRequests, AreCancelledOnce) {
    Completion completion;
    orvik_request* request = nullptr;
    ASSERT_EQ(Start(kHold, completion, &request), ORVIK_OK);
    EXPECT_EQ(orvik_request_cancel(request), ORVIK_OK);
    EXPECT_EQ(completion.Status(), ORVIK_ERROR_CANCELLED);
    EXPECT_EQ(orvik_request_cancel(request), ORVIK_ERROR_NOT_OUTSTANDING);
    EXPECT_EQ(completion.calls, 1);
    orvik_request_close(request);
}

TEST_F(CApiTransfers, RequestThatWasNotSentHasNoHandleAndNoCompletion) {
    Connect();
    Completion completion;
    auto* request = reinterpret_cast<orvik_request*>(1);
    camera = kCameraId + 1;
    EXPECT_EQ(Start(kSucceed, completion, &request), ORVIK_ERROR_NO_SUCH_CAMERA);
    EXPECT_EQ(request, nullptr);
    Close();
    EXPECT_EQ(completion.calls, 0);
}

TEST_F(CApiTransfers, PlainClientRefusesACameraOfAPersistentOne) {
    Connect();
    camera = (std::uint64_t{1} << 32) + kCameraId;
    EXPECT_EQ(NoData(kSucceed), ORVIK_ERROR_NO_SUCH_CAMERA);
}

TEST_F(CApiTransfers, GetSenseDecodesTheAnswer) {
    FakeService other([&](Peer& peer) {
        peer.Welcome({kCameraId});
        const Request request = peer.ReadRequest();
        EXPECT_EQ(request.body.at(0), std::byte{0x03});
        Bytes answer(18);
        answer[0] = std::byte{0x70};
        answer[2] = std::byte{0x02};
        answer[7] = std::byte{10};
        answer[12] = std::byte{0x3A};
        peer.Succeed(request, answer);
        peer.ReadToTheEnd();
    });
    const std::string name = ToUtf8(other.Name());
    options.pipe = name.c_str();
    Connect();
    orvik_sense sense{};
    sense.size = sizeof(sense);
    EXPECT_EQ(orvik_get_sense(client, camera, &sense, kMilliseconds), ORVIK_OK);
    EXPECT_EQ(sense.key, 2);
    EXPECT_EQ(sense.code, 0x3A);
    EXPECT_EQ(sense.qualifier, 0);
    EXPECT_EQ(sense.deferred, 0);
    EXPECT_STREQ(sense.text, "NOT READY: MEDIUM NOT PRESENT");
    Close();
}

}  // namespace
