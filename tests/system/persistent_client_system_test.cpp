// PersistentClient with the real service and virtual cameras.

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "client_system_test.h"
#include "orvik/persistent_client.h"
#include "support/camera_event_log.h"
#include "support/camera_setup.h"
#include "support/client_results.h"
#include "test_console.h"
#include "watching_test.h"

namespace system_test {
namespace {

using namespace std::chrono_literals;
using client_test::Answer;
using client_test::CameraEventLog;
using client_test::KindOf;
using orvik::ErrorKind;
using orvik::PersistentClient;

using Words = std::vector<std::string>;

/// Plugs cameras until Windows tells this process of one, and unplugs them again. `log` is of a
/// client that is not the main communicator.
void WaitUntilWindowsReportsDevices(vcam::Bus& bus, const CameraEventLog& log) {
    const std::size_t before = log.Words().size();
    std::vector<std::unique_ptr<PluggedCamera>> cameras;
    do {
        ASSERT_LT(cameras.size(), 30u) << "no device is reported";
        cameras.push_back(std::make_unique<PluggedCamera>(bus));
    } while (!log.HasWithin(before + 1, 1s));
    log.WaitFor(before + cameras.size());
    cameras.clear();
    // The check that shows the last removal may come before that of the others.
    while (log.Words().size() % 2 != before % 2 || log.Words().back().front() != '-')
        log.WaitFor(log.Words().size() + 1);
}

TEST_F(ClientTest, PersistentClientHearsOfCamerasAfterOrvikctlWatchHasEnded) {
    WaitUntilServiceHears(bus, 1);
    TestConsole console;
    console.Start(ProgramPath(L"orvikctl.exe"), L"--no-server-check watch");
    service.Output().WaitFor("attached main communicator", 2);
    PersistentClient client(Foreground());
    CameraEventLog log;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    EXPECT_EQ(log.WaitFor(2), (Words{"connected", "+1.1"}));
    WaitUntilWindowsReportsDevices(bus, log);
    const orvik::Camera first = client.Cameras().at(0);
    camera.Set(Holds());
    Answer answer;
    client.StartTransferNoData(first, orvik::TestUnitReadyCdb(), answer.Completion());
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    console.PressCtrlC();
    EXPECT_EQ(console.WaitForEnd(), 0u);

    Words expected = log.Words();
    PluggedCamera another(bus);
    const std::string plugged = log.WaitFor(expected.size() + 1).back();
    EXPECT_EQ(plugged.front(), '+');
    another.Unplug();
    EXPECT_EQ(log.WaitFor(expected.size() + 2).back(), "-" + plugged.substr(1));
    const PluggedCamera last(bus);
    EXPECT_EQ(log.WaitFor(expected.size() + 3).back().front(), '+');
    client.TransferNoData(client.Cameras().back(), orvik::TestUnitReadyCdb());
    bus.ReleaseAll(camera.Id());
    EXPECT_TRUE(answer.Data().empty());
    EXPECT_EQ(client.Cameras().size(), 2u);
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(ClientTest, PersistentClientConnectsAgainAfterARestart) {
    PersistentClient client(Foreground());
    CameraEventLog log;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    EXPECT_EQ(log.WaitFor(2), (Words{"connected", "+1.1"}));
    const orvik::Camera before = client.Cameras().at(0);
    EXPECT_EQ(client.TransferIn(before, orvik::InquiryCdb()).size(), 36u);
    service.Stop();
    EXPECT_EQ(log.WaitFor(5), (Words{"connected", "+1.1", "-1.1", "service gone", "stopped"}));
    EXPECT_EQ(KindOf([&] { client.TransferIn(before, orvik::InquiryCdb()); }),
              ErrorKind::kNoSuchCamera);
    service.Start();
    log.WaitForNewest("+2.1");
    EXPECT_EQ(KindOf([&] { client.TransferIn(before, orvik::InquiryCdb()); }),
              ErrorKind::kNoSuchCamera);
    EXPECT_EQ(client.TransferIn(client.Cameras().at(0), orvik::InquiryCdb()).size(), 36u);
    EXPECT_TRUE(service.IsRunning());
}

}  // namespace
}  // namespace system_test
