// Disconnecting does not end the run of the real service.

#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_system_test.h"
#include "orvik/client.h"
#include "support/client_results.h"

namespace system_test {
namespace {

using namespace std::chrono_literals;
using client_test::KindOf;
using client_test::Signal;
using orvik::ErrorKind;

TEST_F(ClientTest, ClientDestroyedInAHandlerLeavesTheServiceRunning) {
    for (int round = 0; round < 20; ++round) {
        auto client = std::make_unique<Client>();
        Signal ready;
        Signal destroyed;
        const auto destroy = [&] {
            EXPECT_TRUE(ready.Wait());
            client.reset();
            destroyed.Set();
        };
        orvik::Subscription subscription;
        if (round % 2 == 0)
            subscription = client->Subscribe([&](const orvik::Event&) { destroy(); });
        else
            client->StartTransferNoData(1, orvik::TestUnitReadyCdb(),
                                        [&](const orvik::TransferResult&) { destroy(); });
        ready.Set();
        EXPECT_TRUE(destroyed.Wait());
    }
    EXPECT_EQ(Client().TransferIn(1, orvik::InquiryCdb()).size(), 36u);
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

TEST_F(ClientTest, ClientsThatConnectAndDisconnectQuicklyLeaveTheServiceRunning) {
    constexpr int kThreads = 6;
    constexpr int kVisits = 80;
    std::mutex mutex;
    std::atomic<int> visits{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&, number] {
            try {
                for (int visit = 0; visit < kVisits; ++visit, ++visits) {
                    Client client(kDeadline);
                    // After an answer from the service, one from the camera, and with a request
                    // outstanding.
                    if (visit % 3 == 1)
                        client.TransferIn(1, orvik::Read6Cdb(0, 16));
                    if (visit % 3 == 2)
                        client.StartTransferNoData(1, orvik::TestUnitReadyCdb(),
                                                   [](const orvik::TransferResult&) {});
                }
            } catch (const std::exception& exception) {
                const std::lock_guard lock(mutex);
                ADD_FAILURE() << "thread " << number << ": " << exception.what();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(visits, kThreads * kVisits);
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

TEST_F(ClientTest, DisconnectingFromAServiceThatHangsDoesNotEndIt) {
    auto client = std::make_unique<Client>();
    const auto start = std::chrono::steady_clock::now();
    {
        const SuspendedProcess hanging(service.Process());
        client.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
        EXPECT_EQ(KindOf([] { Client(100ms); }), ErrorKind::kBusy);
    }
    EXPECT_EQ(Client().TransferIn(1, orvik::InquiryCdb()).size(), 36u);
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

TEST_F(ClientTest, ServiceThatHangsWhileAClientConnectsRunsOnAfterwards) {
    {
        const SuspendedProcess hanging(service.Process());
        EXPECT_EQ(KindOf([] { Client(100ms); }), ErrorKind::kTimedOut);
    }
    EXPECT_EQ(Client().Cameras(), std::vector<orvik::CameraId>{1});
    EXPECT_TRUE(service.IsRunning()) << service.Errors().Text();
}

}  // namespace
}  // namespace system_test
