// Connecting, with a fake service.

#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "busy_pipe.h"
#include "client_of_fake_service.h"
#include "import_hook.h"
#include "orvik/client.h"
#include "support/client_results.h"
#include "support/fake_service.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::OpenServiceW) __imp_OpenServiceW;
extern decltype(&::PeekNamedPipe) __imp_PeekNamedPipe;
}

namespace {

using namespace std::chrono_literals;
using client_test::BusyPipe;
using client_test::Client;
using client_test::ErrorOf;
using client_test::FakeService;
using client_test::KindOf;
using client_test::Peer;
using client_test::PipeWaitObserver;
using client_test::Request;
using client_test::Signal;
using client_test::TakeInstance;
using orvik::ErrorKind;

TEST(ClientConnect, KnowsTheCamerasPresent) {
    FakeService service([](Peer& peer) {
        peer.Announce(3);
        peer.Announce(1);
        const Request roundTrip = peer.ReadRequest();
        EXPECT_EQ(roundTrip.header.messageType, 4U);
        EXPECT_EQ(roundTrip.header.bodyLength, 0U);
        peer.Refuse(roundTrip);
        peer.ReadToTheEnd();
    });
    const Client client(kDeadline, service.Name());
    EXPECT_EQ(client.Cameras(), (std::vector<orvik::CameraId>{3, 1}));
}

TEST(ClientConnect, PipeThatDoesNotExistMeansAStoppedService) {
    const auto error = ErrorOf([] { Client(1s, LR"(\\.\pipe\orvik-client-test-none)"); });
    EXPECT_EQ(error.Kind(), ErrorKind::kStopped) << error.what();
    EXPECT_EQ(error.SystemCode(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_NE(std::string(error.what()).find("(error 2)"), std::string::npos) << error.what();
}

TEST(ClientConnect, PipeWithoutAFreeInstanceIsBusyAtTheDeadline) {
    const BusyPipe pipe;
    const auto error = ErrorOf([&] { Client(100ms, pipe.Name()); });
    EXPECT_EQ(error.Kind(), ErrorKind::kBusy) << error.what();
    EXPECT_EQ(error.SystemCode(), DWORD{ERROR_PIPE_BUSY});
}

TEST(ClientConnect, WaitsForAFreeInstance) {
    Signal busy;
    Signal free;
    FakeService service(
        [](Peer& peer) {
            peer.Welcome({7});
            peer.ReadToTheEnd();
        },
        [&](int number) {
            if (number == 1) {
                busy.Set();
                free.Wait();
            }
        },
        FakeService::UniqueName(), 2);
    const UniqueHandle other = TakeInstance(service.Name());
    ASSERT_TRUE(busy.Wait());
    const PipeWaitObserver observer;
    auto cameras =
        std::async(std::launch::async, [&] { return Client(kDeadline, service.Name()).Cameras(); });
    EXPECT_TRUE(observer.Wait());
    free.Set();
    EXPECT_EQ(cameras.get(), std::vector<orvik::CameraId>{7});
}

TEST(ClientConnect, ServiceThatDoesNotAnswerTimesOut) {
    FakeService service([](Peer& peer) { peer.ReadToTheEnd(); });
    const auto error = ErrorOf([&] { Client(100ms, service.Name()); });
    EXPECT_EQ(error.Kind(), ErrorKind::kTimedOut);
    EXPECT_NE(std::string(error.what()).find("the service is busy with a command"),
              std::string::npos)
        << error.what();
}

TEST(ClientConnect, PipeThatMayNotBeWrittenDeniesAccess) {
    // This pipe cannot be opened for writing, which a client needs.
    const wchar_t name[] = LR"(\\.\pipe\orvik-client-test-denied)";
    const UniqueHandle instance = OwnFile(::CreateNamedPipeW(
        name, PIPE_ACCESS_OUTBOUND, PIPE_TYPE_BYTE, 1, 65536, 65536, 0, nullptr));
    ASSERT_TRUE(instance);
    const auto error = ErrorOf([&] { Client(kDeadline, name); });
    EXPECT_EQ(error.Kind(), ErrorKind::kAccessDenied) << error.what();
    EXPECT_EQ(error.SystemCode(), DWORD{ERROR_ACCESS_DENIED});
}

TEST(ClientConnect, NothingIsSentToAServerThatIsNotTheService) {
    FakeService service([](Peer& peer) { EXPECT_TRUE(peer.ReadToTheEnd().empty()); });
    orvik::ConnectOptions options;
    options.pipe = service.Name();
    const auto error = ErrorOf([&] { orvik::Client client(options); });
    EXPECT_EQ(error.Kind(), ErrorKind::kWrongServer) << error.what();
    EXPECT_NE(std::string(error.what()).find(std::to_string(::GetCurrentProcessId())),
              std::string::npos)
        << error.what();
    // The server may be a service in a console, so the client disconnects cleanly.
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientConnect, UserWhoMayNotQueryTheServiceDisconnectsCleanly) {
    FakeService service([](Peer& peer) { EXPECT_TRUE(peer.ReadToTheEnd().empty()); });
    orvik::ConnectOptions options;
    options.pipe = service.Name();
    const HookedImport<&__imp_OpenServiceW> open([](SC_HANDLE, const wchar_t*, DWORD) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return SC_HANDLE{};
    });
    const auto error = ErrorOf([&] { orvik::Client client(options); });
    EXPECT_EQ(error.Kind(), ErrorKind::kAccessDenied) << error.what();
    EXPECT_EQ(error.SystemCode(), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(service.Connections(), 2);
}

TEST(ClientConnect, ServerThatEndsDuringTheCheckIsNotTheWrongServer) {
    Signal looked;
    Signal closed;
    FakeService service([&](Peer& peer) {
        EXPECT_TRUE(looked.Wait());
        peer.Close();
        closed.Set();
    });
    // The last step of the check asks whether the connection still exists.
    std::once_flag once;
    using Peek = HookedImport<&__imp_PeekNamedPipe>;
    const Peek peek(
        [&](HANDLE pipe, void* to, DWORD size, DWORD* read, DWORD* available, DWORD* left) {
            std::call_once(once, [&] { looked.Set(); });
            EXPECT_TRUE(closed.Wait());
            return Peek::Original(pipe, to, size, read, available, left);
        });
    orvik::ConnectOptions options;
    options.pipe = service.Name();
    EXPECT_EQ(KindOf([&] { orvik::Client client(options); }), ErrorKind::kNotInstalled);
}

TEST(ClientConnect, ServerMayIdentifyTheClientButNotImpersonateIt) {
    FakeService service([](Peer& peer) {
        peer.Welcome({});
        peer.ReadToTheEnd();
    });
    std::vector<DWORD> flags;
    {
        using Create = HookedImport<&__imp_CreateFileW>;
        const Create create([&](const wchar_t* name, DWORD access, DWORD share,
                                SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD attributes,
                                HANDLE like) {
            if (name == service.Name())
                flags.push_back(attributes & SECURITY_VALID_SQOS_FLAGS);
            return Create::Original(name, access, share, security, disposition, attributes, like);
        });
        const Client client(kDeadline, service.Name());
    }
    // The connection, and the second one that confirms the disconnect.
    EXPECT_EQ(flags, std::vector<DWORD>(2, DWORD{SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION}));
}

}  // namespace
