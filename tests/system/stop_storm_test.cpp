// The service is stopped while everything is pending, and started again at once.

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "installed_service.h"
#include "raw_client.h"
#include "support/deadline.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "windows/unique_handle.h"

namespace system_test {
namespace {

constexpr std::uint32_t kCamera = 1;  // the service's identifier of the only camera

RawClient Connect() {
    RawClient client;
    EXPECT_EQ(client.ReceiveMessage(), Attached(kCamera));
    return client;
}

/// Calls a function again and again on a thread of its own, until it returns false or this object
/// ends.
class Repeatedly {
public:
    explicit Repeatedly(std::function<bool()> action)
        : thread([this, action = std::move(action)] {
              bool again = true;
              while (again && !ended) {
                  again = action();
                  ::SetEvent(called.get());
              }
          }) {}
    ~Repeatedly() {
        ended = true;
        thread.join();
    }
    Repeatedly(const Repeatedly&) = delete;
    Repeatedly& operator=(const Repeatedly&) = delete;

    void WaitForFirstCall() const {
        EXPECT_EQ(::WaitForSingleObject(called.get(), Deadline().MillisecondsLeft()),
                  WAIT_OBJECT_0);
    }

private:
    std::atomic<bool> ended = false;
    // Not a std::counting_semaphore: that of libstdc++ 12 loses a wake-up now and then where the
    // system has no futex.
    UniqueHandle called{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::thread thread;
};

class StopStormTest : public SystemTest {
protected:
    /// `path` is that of the program that is the service.
    explicit StopStormTest(const std::wstring& path = ProgramPath(L"OrvikService.exe"))
        : service(RunMode::kServiceManager, path) {}

    /// Stops the service so often while everything is pending, and starts it again at once.
    void Storm(int rounds);

    /// A client with megabytes of answers that it does not read.
    RawClient ClientThatNeverReads() {
        constexpr std::uint32_t kRequests = 32;
        RawClient client = Connect();
        const std::uint64_t before = camera.Counters().requests;
        for (std::uint32_t id = 1; id <= kRequests; ++id)
            client.SendRequest(kTransferIn, id, kCamera, Read6(0, 128));
        bus.WaitFor(camera.Id(), vcam::Counter::kRequests, before + kRequests, kDeadline);
        return client;
    }

    /// A client with requests that the driver holds.
    RawClient ClientWithTransfersPending() {
        constexpr std::uint32_t kRequests = 10;
        RawClient client = Connect();
        camera.Set(Holds());
        for (std::uint32_t id = 1; id <= kRequests; ++id)
            client.SendRequest(kTransferIn, id, kCamera, Inquiry());
        bus.WaitForPending(camera.Id(), kRequests, kDeadline);
        camera.Set({});
        return client;
    }

    /// One more client that says nothing, and stays until the service has ended. False: no instance
    /// of the pipe waits for one.
    bool ConnectSilently() {
        UniqueHandle pipe = OwnFile(
            ::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                          SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
        if (!pipe)
            return ::GetLastError() == ERROR_PIPE_BUSY && ::WaitNamedPipeW(kCameraPipeName, 100);
        silentClients.push_back(std::move(pipe));
        return true;
    }

    std::vector<UniqueHandle> silentClients;  // go after the service
    PluggedCamera camera{bus};
    RunningService service;
};

TEST_F(StopStormTest, StopsWithEverythingPendingAndStartsAgainAtOnce) {
    Storm(50);
}

#ifdef ORVIK_GUARDED_SERVICE
class GuardedStopStormTest : public StopStormTest {
protected:
    GuardedStopStormTest() : StopStormTest(GuardedServicePath()) {}
};

TEST_F(GuardedStopStormTest, TouchesNoFreedMemoryWhenItStopsWithEverythingPending) {
    Storm(10);
}
#endif

void StopStormTest::Storm(int rounds) {
    for (int round = 0; round < rounds && !HasFailure(); ++round) {
        SCOPED_TRACE(round);
        const RawClient neverReads = ClientThatNeverReads();
        const RawClient waits = ClientWithTransfersPending();
        {
            // Some are accepted before the stop, and some are not.
            Repeatedly connecting([this] { return ConnectSilently(); });
            // Devices that are not cameras: the service that is started next knows one camera.
            Repeatedly arriving([this] {
                const PluggedCamera other(bus, WithVendor("Other"));
                return true;
            });
            connecting.WaitForFirstCall();
            arriving.WaitForFirstCall();
            PluggedCamera(bus).Unplug();

            StateNotification stopped(SERVICE_NOTIFY_STOPPED);
            ASSERT_EQ(service.Control(SERVICE_CONTROL_STOP), DWORD{ERROR_SUCCESS});
            stopped.Wait();
            ASSERT_EQ(service.StartAlone(), DWORD{ERROR_SUCCESS});
        }
        EXPECT_EQ(service.WaitForEnd(), 0u);  // of the process that was stopped
        EXPECT_EQ(camera.Counters().pending, 0u);
        service.WaitUntilStarted();
    }
    EXPECT_EQ(Connect().Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
}

}  // namespace
}  // namespace system_test
