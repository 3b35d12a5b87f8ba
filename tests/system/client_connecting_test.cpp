// Connecting the client library to the real service.

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_system_test.h"
#include "installed_service.h"
#include "orvik/client.h"
#include "running_service.h"
#include "support/client_results.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {
namespace {

using namespace std::chrono_literals;
using client_test::ErrorOf;
using client_test::KindOf;
using orvik::ErrorKind;

TEST_F(ClientTest, CamerasPresentAreKnownOnceConnected) {
    EXPECT_EQ(Client().Cameras(), std::vector<orvik::CameraId>{1});
}

TEST_F(SystemTest, ManyCamerasAreAllKnownOnceConnected) {
    std::vector<std::unique_ptr<PluggedCamera>> plugged;
    std::vector<orvik::CameraId> expected;
    for (orvik::CameraId id = 1; id <= 30; ++id) {
        plugged.push_back(std::make_unique<PluggedCamera>(bus));
        expected.push_back(id);
    }
    const RunningService service;
    for (int round = 0; round < 20; ++round)
        EXPECT_EQ(Client().Cameras(), expected);
}

TEST_F(SystemTest, ClientSaysWhyTheServiceCannotBeReached) {
    const auto expect = [](ErrorKind kind, DWORD code, const char* words,
                           std::chrono::milliseconds timeout = kDeadline) {
        const auto error = ErrorOf([&] { orvik::Client(orvik::ConnectOptions{timeout}); });
        EXPECT_EQ(error.Kind(), kind) << error.what();
        EXPECT_EQ(error.SystemCode(), code) << error.what();
        EXPECT_NE(std::string(error.what()).find(words), std::string::npos) << error.what();
    };
    EXPECT_EQ(KindOf([] { const Client client; }), ErrorKind::kStopped);
    expect(ErrorKind::kNotInstalled, ERROR_SERVICE_DOES_NOT_EXIST, "not installed");

    InstallService(TestFolder() + L"\\slow_service.exe");
    expect(ErrorKind::kStopped, ERROR_SERVICE_NOT_ACTIVE, "not running");

    const UniqueHandle runs(
        ::CreateEventW(nullptr, TRUE, FALSE, LR"(Global\orvik-slow-service-runs)"));
    ASSERT_TRUE(runs);
    ASSERT_EQ(StartInstalledService(), DWORD{ERROR_SUCCESS});
    StateNotification(SERVICE_NOTIFY_START_PENDING).Wait();
    expect(ErrorKind::kStarting, ERROR_FILE_NOT_FOUND, "still starting", 100ms);

    ::SetEvent(runs.get());
    StateNotification(SERVICE_NOTIFY_RUNNING).Wait();
    expect(ErrorKind::kBusy, ERROR_FILE_NOT_FOUND, "its pipe does not exist", 100ms);

    const UniqueHandle stops(
        ::CreateEventW(nullptr, TRUE, FALSE, LR"(Global\orvik-slow-service-stops)"));
    ASSERT_TRUE(stops);
    ASSERT_EQ(ControlInstalledService(SERVICE_CONTROL_STOP), DWORD{ERROR_SUCCESS});
    StateNotification(SERVICE_NOTIFY_STOP_PENDING).Wait();
    expect(ErrorKind::kStopped, ERROR_SERVICE_NOT_ACTIVE, "the service is stopping");

    ::SetEvent(stops.get());
    StateNotification(SERVICE_NOTIFY_STOPPED).Wait();
    expect(ErrorKind::kStopped, ERROR_SERVICE_NOT_ACTIVE, "the service is not running");
    EndLeftovers();
}

TEST_F(SystemTest, ClientConnectsToTheServiceThatTheControlManagerRuns) {
    const PluggedCamera camera(bus);
    const RunningService service(RunMode::kServiceManager);
    orvik::Client client;
    EXPECT_EQ(client.TransferIn(1, orvik::InquiryCdb()).size(), 36u);
}

TEST_F(ClientTest, ServiceInAConsoleIsTheWrongServerAndKeepsRunning) {
    for (int round = 0; round < 20; ++round) {
        const auto error = ErrorOf([] { orvik::Client(); });
        EXPECT_EQ(error.Kind(), ErrorKind::kWrongServer) << error.what();
        EXPECT_NE(std::string(error.what()).find("process " + std::to_string(service.ProcessId())),
                  std::string::npos)
            << error.what();
    }
    EXPECT_EQ(Client().TransferIn(1, orvik::InquiryCdb()).size(), 36u);
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

}  // namespace
}  // namespace system_test
