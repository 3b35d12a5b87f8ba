// PersistentClient against a fake service.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "client/device_hints.h"
#include "client_of_fake_service.h"
#include "import_hook.h"
#include "orvik/persistent_client.h"
#include "support/camera_event_log.h"
#include "support/client_results.h"
#include "support/fake_service.h"

extern "C" decltype(&::WaitForMultipleObjects) __imp_WaitForMultipleObjects;

namespace {

using namespace std::chrono_literals;
using client_test::Answer;
using client_test::CameraEventLog;
using client_test::FakeService;
using client_test::KindOf;
using client_test::Peer;
using client_test::Request;
using client_test::Signal;
using orvik::Camera;
using orvik::ErrorKind;
using orvik::PersistentClient;

using Words = std::vector<std::string>;

/// What the fake service does for each of its clients: announces the cameras present, refuses
/// requests that touch no camera, and lets each transfer succeed. It reports no change by itself.
class FakeCameras {
public:
    explicit FakeCameras(std::vector<std::uint32_t> cameras) : present(std::move(cameras)) {}

    std::function<void(Peer&)> Script() {
        return [this](Peer& peer) { Serve(peer); };
    }

    void Set(std::vector<std::uint32_t> cameras) {
        const std::lock_guard lock(mutex);
        present = std::move(cameras);
    }

    /// Is called before each answer to a transfer.
    void BeforeAnswer(std::function<void(Peer&)> function) {
        const std::lock_guard lock(mutex);
        beforeAnswer = std::move(function);
    }

    /// The cameras that requests named, 0 for those that touch none, in order.
    std::vector<std::uint32_t> Named() const {
        const std::lock_guard lock(mutex);
        return named;
    }

private:
    void Serve(Peer& peer) {
        {
            const std::lock_guard lock(mutex);
            for (const std::uint32_t camera : present)
                peer.Announce(camera);
        }
        while (const std::optional<Request> request = peer.NextRequest()) {
            std::function<void(Peer&)> before;
            {
                const std::lock_guard lock(mutex);
                named.push_back(request->header.cameraId);
                before = beforeAnswer;
            }
            if (request->body.empty()) {
                peer.Refuse(*request);
                continue;
            }
            if (before)
                before(peer);
            peer.Succeed(*request);
        }
    }

    mutable std::mutex mutex;
    std::vector<std::uint32_t> present;
    std::vector<std::uint32_t> named;
    std::function<void(Peer&)> beforeAnswer;
};

orvik::ConnectOptions Options(const std::wstring& pipe) {
    orvik::ConnectOptions options;
    options.timeout = kDeadline;
    options.checkServer = false;
    options.pipe = pipe;
    return options;
}

/// Reports to the only PersistentClient what Windows would report: DBT_DEVICEARRIVAL or
/// DBT_DEVICEREMOVECOMPLETE.
void SendHint(WPARAM change) {
    const HWND window =
        ::FindWindowExW(HWND_MESSAGE, nullptr, orvik::DeviceHints::kWindowClass, nullptr);
    ASSERT_NE(window, nullptr);
    ::SendMessageW(window, WM_DEVICECHANGE, change, 0);
}

/// A fake service with camera 7, and a client that has connected to it.
class PersistentClientTest : public testing::Test {
protected:
    PersistentClientTest() { EXPECT_EQ(log.WaitFor(2), (Words{"connected", "+1.7"})); }

    void TestUnitReady(const Camera& camera) {
        client->TransferNoData(camera, orvik::TestUnitReadyCdb(), kDeadline);
    }

    FakeCameras cameras{{7}};
    FakeService service{cameras.Script(), {}, FakeService::UniqueName(), FakeService::kEveryClient};
    CameraEventLog log;
    std::unique_ptr<PersistentClient> client =
        std::make_unique<PersistentClient>(Options(service.Name()));
    orvik::Subscription subscription = client->Subscribe(log.Handler());
};

TEST(PersistentClient, ConnectsToAServiceThatStartsLater) {
    const std::wstring name = FakeService::UniqueName();
    auto client = std::make_unique<PersistentClient>(Options(name));
    CameraEventLog log;
    const orvik::Subscription subscription = client->Subscribe(log.Handler());
    EXPECT_EQ(log.WaitFor(1), Words{"stopped"});
    FakeCameras cameras({7, 8});
    FakeService service(cameras.Script(), {}, name, FakeService::kEveryClient);
    EXPECT_EQ(log.WaitFor(4), (Words{"stopped", "connected", "+1.7", "+1.8"}));
    EXPECT_EQ(client->Cameras(), (std::vector<Camera>{{1, 7}, {1, 8}}));
    CameraEventLog late;
    const orvik::Subscription another = client->Subscribe(late.Handler());
    EXPECT_EQ(late.WaitFor(3), (Words{"connected", "+1.7", "+1.8"}));
    client.reset();  // before the fake service, which waits for it
}

TEST(PersistentClient, EndsWhileItWaitsForTheService) {
    CameraEventLog log;
    {
        PersistentClient client(Options(FakeService::UniqueName()));
        const orvik::Subscription subscription = client.Subscribe(log.Handler());
        EXPECT_EQ(log.WaitFor(1), Words{"stopped"});
    }
    EXPECT_EQ(log.Words(), Words{"stopped"});
}

TEST(PersistentClient, EndsWhileTheServiceDoesNotAnswer) {
    Signal asked;
    FakeService service([&](Peer& peer) {
        peer.ReadOnce();
        asked.Set();
        peer.ReadToTheEnd();
    });
    const PersistentClient client(Options(service.Name()));
    EXPECT_TRUE(asked.Wait());
}

TEST_F(PersistentClientTest, CameraOfAnEarlierRunIsRefusedAfterARestart) {
    TestUnitReady({1, 7});
    cameras.BeforeAnswer([](Peer& peer) { peer.Close(); });
    EXPECT_EQ(KindOf([&] { TestUnitReady({1, 7}); }), ErrorKind::kServiceGone);
    EXPECT_EQ(log.WaitFor(6),
              (Words{"connected", "+1.7", "-1.7", "service gone", "connected", "+2.7"}));
    cameras.BeforeAnswer({});
    const auto named = cameras.Named();
    EXPECT_EQ(KindOf([&] { TestUnitReady({1, 7}); }), ErrorKind::kNoSuchCamera);
    EXPECT_EQ(cameras.Named(), named);
    TestUnitReady({2, 7});
}

TEST_F(PersistentClientTest, HintShowsThatTheConnectionIsDeaf) {
    cameras.Set({7, 8});
    SendHint(DBT_DEVICEARRIVAL);
    EXPECT_EQ(log.WaitFor(3), (Words{"connected", "+1.7", "+1.8"}));
    cameras.Set({8});
    SendHint(DBT_DEVICEREMOVECOMPLETE);
    EXPECT_EQ(log.WaitFor(4), (Words{"connected", "+1.7", "+1.8", "-1.7"}));
    EXPECT_EQ(client->Cameras(), (std::vector<Camera>{{1, 8}}));
    EXPECT_EQ(KindOf([&] { TestUnitReady({1, 7}); }), ErrorKind::kNoSuchCamera);
    TestUnitReady({1, 8});
}

TEST_F(PersistentClientTest, DriveThatTheServiceSeesLaterThanWindowsIsFound) {
    const int before = service.Connections();
    SendHint(DBT_DEVICEARRIVAL);
    // The first check connects once to look, and once more to disconnect.
    while (service.Connections() < before + 2)
        ::Sleep(1);  // no event reports it
    cameras.Set({7, 8});
    EXPECT_EQ(log.WaitFor(3), (Words{"connected", "+1.7", "+1.8"}));
}

TEST_F(PersistentClientTest, CameraThatHasGoneIsNotNamed) {
    cameras.Set({});
    EXPECT_EQ(KindOf([&] { TestUnitReady({1, 7}); }), ErrorKind::kNoSuchCamera);
    EXPECT_EQ(log.WaitFor(3), (Words{"connected", "+1.7", "-1.7"}));
    for (const std::uint32_t camera : cameras.Named())
        EXPECT_EQ(camera, 0u);
}

TEST_F(PersistentClientTest, OnlyTheFirstRequestForACameraConnectsAgain) {
    EXPECT_EQ(service.Connections(), 1);
    TestUnitReady({1, 7});
    // One to look which cameras are present, one to disconnect that one.
    EXPECT_EQ(service.Connections(), 3);
    TestUnitReady({1, 7});
    EXPECT_EQ(service.Connections(), 3);
    SendHint(DBT_DEVICEREMOVECOMPLETE);
    TestUnitReady({1, 7});
    EXPECT_GT(service.Connections(), 3);
}

TEST_F(PersistentClientTest, MainCommunicatorConfirmsWithARoundTrip) {
    cameras.BeforeAnswer([](Peer& peer) { peer.Announce(8); });
    TestUnitReady({1, 7});
    EXPECT_EQ(log.WaitFor(3), (Words{"connected", "+1.7", "+1.8"}));
    cameras.BeforeAnswer({});
    const int connections = service.Connections();
    std::vector<std::uint32_t> expected = cameras.Named();
    expected.insert(expected.end(), {0, 8, 8, 0, 8});
    TestUnitReady({1, 8});
    TestUnitReady({1, 8});
    SendHint(DBT_DEVICEREMOVECOMPLETE);
    TestUnitReady({1, 8});
    EXPECT_EQ(cameras.Named(), expected);
    EXPECT_EQ(service.Connections(), connections);
}

TEST_F(PersistentClientTest, RequestCanBeCancelledOrAbandoned) {
    TestUnitReady({1, 7});
    Signal release;
    cameras.BeforeAnswer([&](Peer&) { EXPECT_TRUE(release.Wait()); });
    Answer cancelled;
    const auto request =
        client->StartTransferNoData({1, 7}, orvik::TestUnitReadyCdb(), cancelled.Completion());
    EXPECT_TRUE(client->Cancel(request));
    EXPECT_EQ(KindOf([&] { cancelled.Data(); }), ErrorKind::kCancelled);
    EXPECT_FALSE(client->Cancel(request));
    EXPECT_FALSE(client->Cancel({request.connection + 1, request.id}));
    std::atomic<bool> ended{false};
    client->StartTransferNoData({1, 7}, orvik::TestUnitReadyCdb(),
                                [&ended](const orvik::TransferResult&) {
                                    EXPECT_FALSE(ended) << "called after the client's end";
                                });
    release.Set();
    client.reset();
    ended = true;
}

TEST_F(PersistentClientTest, HandlerMayDestroyIt) {
    Signal destroyed;
    subscription = client->Subscribe([&](const orvik::CameraEvent& event) {
        if (event.kind == orvik::CameraEvent::Kind::kCameraAttached) {
            client.reset();
            destroyed.Set();
        }
    });
    EXPECT_TRUE(destroyed.Wait());
}

TEST_F(PersistentClientTest, EndsAfterAHandlerInProgress) {
    Signal called;
    Signal release;
    std::atomic<bool> returned{false};
    subscription = client->Subscribe([&, one = client.get()](const orvik::CameraEvent& event) {
        if (event.kind != orvik::CameraEvent::Kind::kCameraAttached)
            return;
        called.Set();
        EXPECT_TRUE(release.Wait());
        try {
            one->TransferNoData(event.camera, orvik::TestUnitReadyCdb(), kDeadline);
        } catch (const orvik::Error& error) {
            EXPECT_EQ(error.Kind(), ErrorKind::kCancelled) << error.what();
        }
        returned = true;
    });
    EXPECT_TRUE(called.Wait());
    auto end = std::async(std::launch::async, [this] { client.reset(); });
    release.Set();
    end.get();
    EXPECT_TRUE(returned);
}

TEST_F(PersistentClientTest, CompletionMayDestroyIt) {
    Signal destroyed;
    client->StartTransferNoData({1, 7}, orvik::TestUnitReadyCdb(),
                                [&](const orvik::TransferResult&) {
                                    client.reset();
                                    destroyed.Set();
                                });
    EXPECT_TRUE(destroyed.Wait());
}

TEST_F(PersistentClientTest, HandlerMayWaitForAnAnswer) {
    Signal answered;
    subscription = client->Subscribe([&](const orvik::CameraEvent& event) {
        if (event.kind == orvik::CameraEvent::Kind::kCameraAttached) {
            TestUnitReady(event.camera);
            answered.Set();
        }
    });
    EXPECT_TRUE(answered.Wait());
}

TEST(PersistentClient, AsynchronousRequestWithoutATimeOutIsConfirmedWithin30Seconds) {
    Signal waits;
    std::atomic<bool> confirming{false};
    std::atomic<DWORD> longest{0};
    std::once_flag once;
    using Wait = HookedImport<&__imp_WaitForMultipleObjects>;
    const Wait wait([&, test = std::this_thread::get_id()](DWORD count, const HANDLE* handles,
                                                           BOOL all, DWORD milliseconds) {
        if (confirming && std::this_thread::get_id() == test) {
            longest = std::max<DWORD>(longest, milliseconds);
            std::call_once(once, [&] { waits.Set(); });
        }
        return Wait::Original(count, handles, all, milliseconds);
    });
    std::atomic<int> clients{0};
    FakeService service(
        [&](Peer& peer) {
            const bool confirms = ++clients == 2;
            peer.Announce(7);
            while (const std::optional<Request> request = peer.NextRequest()) {
                EXPECT_TRUE(!confirms || waits.Wait());
                request->body.empty() ? peer.Refuse(*request) : peer.Succeed(*request);
            }
        },
        {}, FakeService::UniqueName(), FakeService::kEveryClient);
    orvik::ConnectOptions options = Options(service.Name());
    options.timeout = 10 * kDeadline;
    PersistentClient client(options);
    CameraEventLog log;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    EXPECT_EQ(log.WaitFor(2), (Words{"connected", "+1.7"}));
    Answer answer;
    confirming = true;
    client.StartTransferNoData({1, 7}, orvik::TestUnitReadyCdb(), answer.Completion());
    confirming = false;
    EXPECT_TRUE(answer.Data().empty());
    EXPECT_GT(longest, DWORD{0});
    EXPECT_LE(longest, DWORD{30'000});
}

TEST_F(PersistentClientTest, InvalidArgumentsAreRefused) {
    EXPECT_EQ(KindOf([&] { static_cast<void>(client->Subscribe(nullptr)); }),
              ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([&] {
                  client->StartTransferIn({1, 7}, orvik::InquiryCdb(), nullptr, kDeadline);
              }),
              ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([&] { TestUnitReady({}); }), ErrorKind::kNoSuchCamera);
}

}  // namespace
