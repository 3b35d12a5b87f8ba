// Cameras that are plugged and unplugged under the transfers of eight PersistentClients. The
// environment variable ORVIK_PLUGS chooses how often; the default is 5.

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_system_test.h"
#include "orvik/persistent_client.h"
#include "watching_test.h"

namespace system_test {
namespace {

using orvik::PersistentClient;

/// A program that reads from each camera as long as it is there.
class Reader {
public:
    Reader() : thread([this] { Run(); }) {}
    ~Reader() {
        stopping = true;
        thread.join();
    }

    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    /// How many cameras it has read from.
    int CamerasRead() const { return camerasRead; }
    bool HasCameras() const { return !client.Cameras().empty(); }

private:
    void Run() {
        orvik::Camera last;
        while (!stopping) {
            const std::vector<orvik::Camera> cameras = client.Cameras();
            if (cameras.empty()) {
                ::Sleep(1);  // a subscription would do without, but would test less
                continue;
            }
            try {
                client.TransferIn(cameras.back(), orvik::InquiryCdb());
                if (last != cameras.back())
                    ++camerasRead;
                last = cameras.back();
            } catch (const orvik::Error& error) {
                const orvik::ErrorKind kind = error.Kind();
                EXPECT_TRUE(kind == orvik::ErrorKind::kRefused ||
                            kind == orvik::ErrorKind::kCameraGone ||
                            kind == orvik::ErrorKind::kNoSuchCamera)
                    << error.what();
            }
        }
    }

    PersistentClient client{Foreground()};
    std::atomic<int> camerasRead{0};
    std::atomic<bool> stopping{false};
    std::thread thread;
};

int PlugCount() {
    const char* const text = std::getenv("ORVIK_PLUGS");
    return text == nullptr ? 5 : std::atoi(text);
}

TEST_F(SystemTest, CamerasUnpluggedUnderTheTransfersOfEightPersistentClientsDoNotEndTheRun) {
    const RunningService service;
    WaitUntilServiceHears(bus, 0);
    std::array<Reader, 8> readers;
    const auto waitForAll = [&](auto condition) {
        const Deadline deadline;
        while (!std::all_of(readers.begin(), readers.end(), condition)) {
            ASSERT_FALSE(deadline.Over());
            ASSERT_TRUE(service.IsRunning());
            ::Sleep(1);  // no event reports it
        }
    };
    // Windows may not report the first devices to this process yet.
    std::vector<std::unique_ptr<PluggedCamera>> first;
    while (!std::all_of(readers.begin(), readers.end(),
                        [](const Reader& reader) { return reader.HasCameras(); })) {
        ASSERT_LT(first.size(), 30u) << "no device is reported";
        first.push_back(std::make_unique<PluggedCamera>(bus));
        ::Sleep(1000);  // the time that a check takes
    }
    first.clear();
    waitForAll([](const Reader& reader) { return !reader.HasCameras(); });
    const int plugs = PlugCount();
    for (int plug = 0; plug < plugs && !HasFatalFailure(); ++plug) {
        std::array<int, 8> before{};
        std::transform(readers.begin(), readers.end(), before.begin(),
                       [](const Reader& reader) { return reader.CamerasRead(); });
        PluggedCamera camera(bus);
        waitForAll([&](const Reader& reader) {
            return reader.CamerasRead() > before[static_cast<std::size_t>(&reader - &readers[0])];
        });
        camera.Unplug();
        waitForAll([](const Reader& reader) { return !reader.HasCameras(); });
    }
    EXPECT_TRUE(service.IsRunning());
}

}  // namespace
}  // namespace system_test
