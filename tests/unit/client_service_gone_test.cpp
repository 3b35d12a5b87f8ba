// A service that closes the connection.

#include <array>
#include <atomic>
#include <cstddef>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_of_fake_service.h"
#include "import_hook.h"
#include "orvik/client.h"
#include "protocol/message.h"
#include "support/client_results.h"
#include "support/fake_service.h"
#include "support/messages.h"

extern "C" {
extern decltype(&::WriteFile) __imp_WriteFile;
}

namespace {

using client_test::Answer;
using client_test::Client;
using client_test::ErrorOf;
using client_test::FakeService;
using client_test::KindOf;
using client_test::MakeBytes;
using client_test::Peer;
using client_test::Request;
using client_test::Signal;
using orvik::ErrorKind;

TEST(ClientServiceGone, WhileIdleIsReportedByTheNextCall) {
    FakeService service([](Peer& peer) { peer.Welcome({7}); });
    Client client(kDeadline, service.Name());
    EXPECT_EQ(KindOf([&] { client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline); }),
              ErrorKind::kServiceGone);
}

TEST(ClientServiceGone, EndsEveryRequestThatIsNotAnswered) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.ReadRequest();
        const Request second = peer.ReadRequest();
        peer.ReadRequest();
        peer.Succeed(second, MakeBytes({2}));
    });
    Client client(kDeadline, service.Name());
    std::array<Answer, 3> answers;
    for (Answer& answer : answers)
        client.StartTransferIn(7, orvik::InquiryCdb(), answer.Completion());
    EXPECT_EQ(KindOf([&] { answers[0].Data(); }), ErrorKind::kServiceGone);
    EXPECT_EQ(answers[1].Data(), MakeBytes({2}));
    EXPECT_EQ(KindOf([&] { answers[2].Data(); }), ErrorKind::kServiceGone);
}

TEST(ClientServiceGone, EndsSeveralPendingWrites) {
    constexpr int kWrites = 3;
    constexpr std::size_t kLength = 1 << 20;
    std::atomic<int> started{0};
    Signal allStarted;
    FakeService service([&](Peer& peer) {
        peer.Welcome({7});
        EXPECT_TRUE(allStarted.Wait());  // and none can end, because the service does not read
    });
    Client client(kDeadline, service.Name());
    using Write = HookedImport<&__imp_WriteFile>;
    const Write write(
        [&](HANDLE file, const void* bytes, DWORD size, DWORD* count, OVERLAPPED* overlapped) {
            const BOOL done = Write::Original(file, bytes, size, count, overlapped);
            const DWORD code = ::GetLastError();
            if (size > kLength && ++started == kWrites)
                allStarted.Set();
            ::SetLastError(code);
            return done;
        });
    std::vector<std::future<ErrorKind>> kinds;
    for (int number = 0; number < kWrites; ++number)
        kinds.push_back(std::async(std::launch::async, [&] {
            return KindOf(
                [&] { client.TransferOut(7, orvik::Write6Cdb(0, 1), Bytes(kLength), kDeadline); });
        }));
    for (auto& kind : kinds)
        EXPECT_EQ(kind.get(), ErrorKind::kServiceGone);
}

TEST(ClientServiceGone, InTheMiddleOfAMessageIsReportedAsSuch) {
    for (const std::size_t bytes : {1U, 15U, 16U, 17U, 19U}) {
        FakeService service([&](Peer& peer) {
            peer.Welcome({7});
            const Request request = peer.ReadRequest();
            Bytes answer = HeaderBytes({kTransferSucceeded, request.header.requestId, 7, 4});
            answer.resize(20);
            answer.resize(bytes);
            peer.Send(answer);
        });
        Client client(kDeadline, service.Name());
        const auto error = ErrorOf([&] { client.TransferIn(7, orvik::InquiryCdb(), kDeadline); });
        EXPECT_EQ(error.Kind(), ErrorKind::kServiceGone) << error.what();
        EXPECT_NE(std::string(error.what()).find("in the middle"), std::string::npos)
            << error.what();
    }
}

}  // namespace
