// Calls of the client library that are cut off by the end of the service or an unplugged camera.

#include <chrono>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_system_test.h"
#include "orvik/client.h"
#include "support/bytes.h"
#include "support/camera_setup.h"
#include "support/client_results.h"
#include "watching_test.h"

namespace system_test {
namespace {

using namespace std::chrono_literals;
using client_test::Answer;
using client_test::EventLog;
using client_test::KindOf;
using orvik::ErrorKind;

/// The calls that can be cut off. Each waits for its result.
using MakeCall = void (*)(Client& client);
struct NamedCall {
    const char* name;
    MakeCall make;
};

constexpr NamedCall kCalls[] = {
    {"TransferIn", [](Client& client) { client.TransferIn(1, orvik::InquiryCdb()); }},
    {"TransferOut",
     [](Client& client) {
         client.TransferOut(1, orvik::Write6Cdb(0, 1), Bytes(vcam::kBlockSize));
     }},
    {"TransferNoData", [](Client& client) { client.TransferNoData(1, orvik::TestUnitReadyCdb()); }},
    {"StartTransferIn",
     [](Client& client) {
         Answer answer;
         client.StartTransferIn(1, orvik::InquiryCdb(), answer.Completion());
         answer.Data();
     }},
    {"StartTransferOut",
     [](Client& client) {
         Answer answer;
         client.StartTransferOut(1, orvik::Write6Cdb(0, 1), Bytes(vcam::kBlockSize),
                                 answer.Completion());
         answer.Data();
     }},
    {"StartTransferNoData",
     [](Client& client) {
         Answer answer;
         client.StartTransferNoData(1, orvik::TestUnitReadyCdb(), answer.Completion());
         answer.Data();
     }},
};

class ClientCutOff : public ClientTest, public testing::WithParamInterface<NamedCall> {};

TEST_P(ClientCutOff, ByTheEndOfTheService) {
    Client client;
    EventLog log;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    camera.Set(Holds());
    auto kind =
        std::async(std::launch::async, [&] { return KindOf([&] { GetParam().make(client); }); });
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    service.Stop();
    EXPECT_EQ(kind.get(), ErrorKind::kServiceGone);
    EXPECT_EQ(KindOf([&] { GetParam().make(client); }), ErrorKind::kServiceGone);
    EXPECT_EQ(log.WaitFor(2), (std::vector<std::string>{"+1", "gone"}));
    service.Start();
    client = Client();
    camera.Set({});
    GetParam().make(client);
}

TEST_P(ClientCutOff, ByTheUnpluggingOfTheCamera) {
    WaitUntilServiceHears(bus, 1);
    Client client(WaitingForReports());
    camera.Set(Holds());
    auto kind =
        std::async(std::launch::async, [&] { return KindOf([&] { GetParam().make(client); }); });
    bus.WaitForPending(camera.Id(), 1, kDeadline);
    camera.Unplug();
    EXPECT_EQ(kind.get(), ErrorKind::kCameraGone);
    EXPECT_TRUE(service.IsRunning());
}

INSTANTIATE_TEST_SUITE_P(Calls, ClientCutOff, testing::ValuesIn(kCalls),
                         [](const auto& call) { return std::string(call.param.name); });

TEST_F(ClientTest, ServiceKilledWhileAClientConnects) {
    std::optional<SuspendedProcess> hanging(std::in_place, service.Process());
    auto kind = std::async(std::launch::async, [] { return KindOf([] { const Client client; }); });
    WaitUntilNoInstanceIsFree();
    service.Stop();
    hanging.reset();
    EXPECT_EQ(kind.get(), ErrorKind::kServiceGone);
}

TEST_F(ClientTest, ServiceKilledWhileAClientDisconnects) {
    auto client = std::make_unique<Client>();
    std::optional<SuspendedProcess> hanging(std::in_place, service.Process());
    auto disconnected = std::async(std::launch::async, [&] { client.reset(); });
    WaitUntilNoInstanceIsFree();
    service.Stop();
    hanging.reset();
    // The destructor promises two seconds. One more is for a busy machine.
    EXPECT_EQ(disconnected.wait_for(3s), std::future_status::ready);
}

TEST_F(ClientTest, RoundTripIsCutOffByItsDeadlineAndByTheEndOfTheService) {
    Client client;
    std::optional<SuspendedProcess> hanging(std::in_place, service.Process());
    EXPECT_EQ(KindOf([&] { client.RoundTrip(100ms); }), ErrorKind::kTimedOut);
    auto kind = std::async(std::launch::async, [&] { return KindOf([&] { client.RoundTrip(); }); });
    service.Stop();
    hanging.reset();
    EXPECT_EQ(kind.get(), ErrorKind::kServiceGone);
}

}  // namespace
}  // namespace system_test
