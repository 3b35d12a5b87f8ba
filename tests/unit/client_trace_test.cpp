// The trace of the client library's messages. A program of its own, because a process reads the
// environment variable once.

#include <chrono>
#include <cstddef>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client/trace.h"
#include "client_of_fake_service.h"
#include "orvik/client.h"
#include "support/client_results.h"
#include "support/fake_service.h"
#include "support/messages.h"
#include "support/trace_lines.h"
#include "windows/utf.h"

namespace {

using client_test::Client;
using client_test::ErrorOf;
using client_test::FakeService;
using client_test::KindOf;
using client_test::LinesOf;
using client_test::MakeBytes;
using client_test::Peer;
using client_test::Request;
using client_test::WithoutTimes;
using orvik::ErrorKind;
using orvik::TraceFile;

using Lines = std::vector<std::string>;

/// A path in the folder for temporary files, outside the system's code page.
std::wstring PathOf(const std::wstring& name) {
    std::wstring folder(MAX_PATH, L'\0');
    folder.resize(::GetTempPathW(MAX_PATH, folder.data()));
    return folder + L"orvik-\u03C0-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + name;
}

/// Names the file of this process before the first Client exists, and removes it at the end.
class TraceEnvironment : public testing::Environment {
public:
    void SetUp() override { ::SetEnvironmentVariableW(L"ORVIK_TRACE", path.c_str()); }
    void TearDown() override { EXPECT_TRUE(::DeleteFileW(path.c_str())) << ::GetLastError(); }

    const std::wstring path = PathOf(L"trace.txt");
};

const auto* const environment =
    static_cast<TraceEnvironment*>(testing::AddGlobalTestEnvironment(new TraceEnvironment));

/// The lines that this test adds to the trace.
class ClientTrace : public testing::Test {
protected:
    Lines NewLines() const {
        const Lines all = LinesOf(environment->path);
        return {all.begin() + static_cast<std::ptrdiff_t>(before), all.end()};
    }
    Lines NewTexts() const { return WithoutTimes(NewLines()); }

    std::size_t before = LinesOf(environment->path).size();
};

TEST_F(ClientTrace, HasALineForEachMessageAndNoData) {
    FakeService service([](Peer& peer) {
        peer.Welcome({7});
        peer.Succeed(peer.ReadRequest(), MakeBytes({'k', 'e', 'y'}));
        peer.Succeed(peer.ReadRequest());
        const Request refused = peer.ReadRequest();
        peer.Send({kCameraDetached, kNotificationId, 7, 0});
        peer.Refuse(refused);
        peer.ReadToTheEnd();
    });
    {
        Client client(kDeadline, service.Name());
        client.TransferIn(7, orvik::InquiryCdb(), kDeadline);
        client.TransferOut(7, orvik::Write6Cdb(5, 1), MakeBytes({'k', 'e', 'y'}), kDeadline);
        EXPECT_EQ(KindOf([&] {
                      client.TransferNoData(7, MakeBytes({0xC1, 2, 3}), kDeadline);
                  }),
                  ErrorKind::kCameraGone);
    }
    EXPECT_EQ(NewTexts(),
              (Lines{"* connected to process N on " + orvik_internal::ToUtf8(service.Name()),
                     "> no-data request 1 camera 0 length 0", "< attached camera 7",
                     "< failed request 1 camera 0 length 0 after N us",
                     "> in request 2 camera 7 length 16: 12 00 00 00 24 00 INQUIRY",
                     "< succeeded request 2 camera 7 length 3 after N us",
                     "> out request 3 camera 7 length 19: 0a 00 00 05 01 00 WRITE(6)",
                     "< succeeded request 3 camera 7 length 0 after N us",
                     "> no-data request 4 camera 7 length 16: c1 02 03 00 00 00 00 00",
                     "< detached camera 7", "< failed request 4 camera 7 length 0 after N us",
                     "* disconnected"}));
}

TEST_F(ClientTrace, SaysWhyAConnectionEnds) {
    FakeService service([](Peer& peer) {
        peer.Welcome({});
        peer.ReadRequest();
        peer.Close();
    });
    Client client(kDeadline, service.Name());
    const auto error = ErrorOf([&] { client.RoundTrip(kDeadline); });
    EXPECT_EQ(error.Kind(), ErrorKind::kServiceGone);
    EXPECT_EQ(NewTexts().back(), std::string("* closed: ") + error.what());
}

TEST_F(ClientTrace, SaysWhyConnectingFails) {
    const auto error = ErrorOf([] { Client(kDeadline, FakeService::UniqueName()); });
    EXPECT_EQ(NewTexts(), Lines{std::string("* not connected: ") + error.what()});
}

TEST_F(ClientTrace, SaysThatTheServiceDidNotAnswerInTime) {
    FakeService service([](Peer& peer) { peer.ReadToTheEnd(); });
    const auto error = ErrorOf([&] { Client(std::chrono::milliseconds(100), service.Name()); });
    EXPECT_EQ(error.Kind(), ErrorKind::kTimedOut);
    EXPECT_EQ(NewTexts().back(), std::string("* closed: ") + error.what());
}

TEST_F(ClientTrace, LinesOfSeveralThreadsAreWhole) {
    constexpr int kTransfers = 100;
    constexpr int kClients = 4;
    FakeService service(
        [](Peer& peer) {
            peer.Welcome({7});
            for (int i = 0; i < kTransfers; ++i)
                peer.Succeed(peer.ReadRequest());
            peer.ReadToTheEnd();
        },
        {}, FakeService::UniqueName(), FakeService::kEveryClient);
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([&] {
            Client client(kDeadline, service.Name());
            for (int transfer = 0; transfer < kTransfers; ++transfer)
                client.TransferNoData(7, orvik::TestUnitReadyCdb(), kDeadline);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    // Five lines of each client for connecting and disconnecting, and two for each transfer.
    EXPECT_EQ(NewTexts().size(), std::size_t{kClients * (5 + 2 * kTransfers)});
}

TEST_F(ClientTrace, LinesNameTheProcessAndTheConnection) {
    FakeService service([](Peer& peer) {
        peer.Welcome({});
        peer.ReadToTheEnd();
    });
    { const Client first(kDeadline, service.Name()); }
    static_cast<void>(KindOf([] { Client(kDeadline, FakeService::UniqueName()); }));
    const std::string process = " " + std::to_string(::GetCurrentProcessId()) + ".";
    std::set<std::string> connections;
    for (const std::string& line : NewLines()) {
        const std::size_t at = line.find(process);
        ASSERT_NE(at, std::string::npos) << line;
        const std::size_t number = at + process.size();
        connections.insert(line.substr(number, line.find(' ', number) - number));
    }
    EXPECT_EQ(connections.size(), 2u);
}

TEST_F(ClientTrace, SeveralProcessesMayAppendToOneFile) {
    const std::wstring path = PathOf(L"shared.txt");
    {
        const std::unique_ptr<TraceFile> one = TraceFile::Open(path);
        const std::unique_ptr<TraceFile> other = TraceFile::Open(path);
        ASSERT_NE(one, nullptr);
        ASSERT_NE(other, nullptr);
        one->WriteLine(1, "* a");
        other->WriteLine(1, "* b");
        one->WriteLine(1, "* c");
    }
    const std::unique_ptr<TraceFile> later = TraceFile::Open(path);
    later->WriteLine(1, "* d");
    EXPECT_EQ(WithoutTimes(LinesOf(path)), (Lines{"* a", "* b", "* c", "* d"}));
    EXPECT_TRUE(::DeleteFileW(path.c_str())) << "the file cannot be deleted while it is open";
}

TEST_F(ClientTrace, FileThatCannotBeOpenedIsNone) {
    EXPECT_EQ(TraceFile::Open(PathOf(L"missing\\trace.txt")), nullptr);
    const std::wstring folder = PathOf(L"folder");
    ASSERT_TRUE(::CreateDirectoryW(folder.c_str(), nullptr));
    EXPECT_EQ(TraceFile::Open(folder), nullptr);
    EXPECT_TRUE(::RemoveDirectoryW(folder.c_str()));
    EXPECT_FALSE(orvik::Trace(nullptr));
}

}  // namespace
