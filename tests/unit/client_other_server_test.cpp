// Another program that serves instances of the camera pipe, as any user may.

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_of_fake_service.h"
#include "import_hook.h"
#include "orvik/client.h"
#include "support/client_results.h"
#include "support/fake_service.h"

extern "C" {
extern decltype(&::GetNamedPipeServerProcessId) __imp_GetNamedPipeServerProcessId;
extern decltype(&::OpenServiceW) __imp_OpenServiceW;
extern decltype(&::QueryServiceStatusEx) __imp_QueryServiceStatusEx;
}

namespace {

using namespace std::chrono_literals;
using client_test::Client;
using client_test::ErrorOf;
using client_test::FakeService;
using client_test::Peer;
using client_test::Signal;
using orvik::ErrorKind;

constexpr DWORD kOtherProcess = 4;

/// The service control manager runs this process as the service.
class ThisProcessIsTheService {
    // Any handle that can be closed.
    const HookedImport<&__imp_OpenServiceW> open{[](SC_HANDLE, const wchar_t*, DWORD) {
        return ::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    }};
    const HookedImport<&__imp_QueryServiceStatusEx> query{
        [](SC_HANDLE, SC_STATUS_TYPE, BYTE* buffer, DWORD, DWORD*) -> BOOL {
            auto* const status = reinterpret_cast<SERVICE_STATUS_PROCESS*>(buffer);
            status->dwCurrentState = SERVICE_RUNNING;
            status->dwProcessId = ::GetCurrentProcessId();
            return TRUE;
        }};
};

/// Another process serves the instances of which the server is asked for the numbers `first` to
/// `last`.
class OtherServer {
public:
    OtherServer(int first, int last)
        : hook([this, first, last](HANDLE, ULONG* process) -> BOOL {
              ++asked;
              *process = asked >= first && asked <= last ? kOtherProcess : ::GetCurrentProcessId();
              return TRUE;
          }) {}

private:
    int asked = 0;
    const HookedImport<&__imp_GetNamedPipeServerProcessId> hook;
};

orvik::ConnectOptions CheckingOptions(const FakeService& service) {
    orvik::ConnectOptions options;
    options.pipe = service.Name();
    return options;
}

TEST(ClientOtherServer, NextInstanceIsTriedWhileTheServiceRuns) {
    FakeService service(
        [](Peer& peer) {
            peer.Welcome({7});
            peer.ReadToTheEnd();
        },
        {}, FakeService::UniqueName(), 3);
    const ThisProcessIsTheService running;
    const OtherServer other(1, 2);
    const orvik::Client client(CheckingOptions(service));
    EXPECT_EQ(client.Cameras(), std::vector<orvik::CameraId>{7});
    EXPECT_EQ(service.Connections(), 3);
}

TEST(ClientOtherServer, NothingButOtherServersIsTheWrongServerAtTheDeadline) {
    FakeService service([](Peer& peer) { EXPECT_TRUE(peer.ReadToTheEnd().empty()); });
    const ThisProcessIsTheService running;
    const OtherServer other(1, 1'000'000);
    orvik::ConnectOptions options = CheckingOptions(service);
    options.timeout = 50ms;
    const auto error = ErrorOf([&] { orvik::Client client(options); });
    EXPECT_EQ(error.Kind(), ErrorKind::kWrongServer) << error.what();
    EXPECT_NE(std::string(error.what()).find("the service is process"), std::string::npos)
        << error.what();
    EXPECT_GT(service.Connections(), 2);
}

TEST(ClientOtherServer, ServerThatClosesAfterAnAnnouncementIsNotTheWrongServer) {
    Signal asked;
    Signal closed;
    FakeService service([&](Peer& peer) {
        peer.Announce(7);
        EXPECT_TRUE(asked.Wait());
        peer.Close();
        closed.Set();
    });
    std::once_flag once;
    const HookedImport<&__imp_GetNamedPipeServerProcessId> hook([&](HANDLE, ULONG* process) {
        std::call_once(once, [&] {
            asked.Set();
            EXPECT_TRUE(closed.Wait());
        });
        *process = ::GetCurrentProcessId();
        return TRUE;
    });
    const auto error = ErrorOf([&] { orvik::Client client(CheckingOptions(service)); });
    EXPECT_EQ(error.Kind(), ErrorKind::kNotInstalled) << error.what();
}

TEST(ClientOtherServer, SecondConnectionOfADisconnectIsToTheSameServer) {
    FakeService service([](Peer& peer) {
        peer.Welcome({});
        peer.ReadToTheEnd();
    });
    // The disconnect asks for the first connection's server, then for that of each instance that it
    // takes: two of another program, and one of the service.
    const OtherServer other(2, 3);
    { const Client client(kDeadline, service.Name()); }
    EXPECT_EQ(service.Connections(), 4);
}

}  // namespace
