// Events of the client library, with the real service and virtual cameras.

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_system_test.h"
#include "orvik/client.h"
#include "support/client_results.h"
#include "support/plugged_camera.h"
#include "watching_test.h"

namespace system_test {
namespace {

using client_test::EventLog;
using client_test::KindOf;
using orvik::ErrorKind;

using ClientWatchingTest = WatchingTest;

TEST_P(ClientWatchingTest, SubscribersReceiveAttachedAndDetachedCameras) {
    orvik::ConnectOptions options;
    options.checkServer = GetParam() == RunMode::kServiceManager;
    orvik::Client client(options);
    EventLog log;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    std::vector<std::string> expected;
    for (int round = 0; round < 5; ++round) {
        PluggedCamera camera(bus);
        expected.push_back("+" + std::to_string(nextId));
        EXPECT_EQ(log.WaitFor(expected.size()), expected);
        EventLog other;
        orvik::Subscription also = client.Subscribe(other.Handler());
        EXPECT_EQ(other.WaitFor(1).at(0), expected.back());
        EXPECT_EQ(client.Cameras(), std::vector<orvik::CameraId>{nextId});
        // Called after `other` for each event, so that a wrong call of `other` would come before.
        EventLog last;
        const orvik::Subscription lastSubscription = client.Subscribe(last.Handler());
        also.End();
        camera.Unplug();
        expected.push_back("-" + std::to_string(nextId));
        EXPECT_EQ(log.WaitFor(expected.size()), expected);
        EXPECT_EQ(last.WaitFor(2).size(), 2u);
        EXPECT_EQ(other.Count(), 1u);
        EXPECT_EQ(KindOf([&] { client.TransferIn(nextId, orvik::InquiryCdb()); }),
                  ErrorKind::kNoSuchCamera);
        ++nextId;
    }
    service.Stop();
    expected.push_back("gone");
    EXPECT_EQ(log.WaitFor(expected.size()), expected);
}

ORVIK_IN_BOTH_MODES(ClientWatchingTest);

}  // namespace
}  // namespace system_test
