// The service under the service control manager, as that and its clients see it.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "installed_service.h"
#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {
namespace {

constexpr std::uint32_t kCamera = 1;     // the service's identifier of the first camera
constexpr DWORD kFirstOwnControl = 128;  // services may give meanings to controls from here on

/// The service under the service control manager, with one camera.
class ServiceStateTest : public SystemTest {
protected:
    RawClient Connect() {
        RawClient client;
        EXPECT_EQ(client.ReceiveMessage(), Attached(kCamera));
        return client;
    }

    PluggedCamera camera{bus};
    RunningService service{RunMode::kServiceManager};
};

void ExpectRunning(const SERVICE_STATUS_PROCESS& status) {
    EXPECT_EQ(status.dwServiceType, DWORD{SERVICE_WIN32_OWN_PROCESS});
    EXPECT_EQ(status.dwCurrentState, DWORD{SERVICE_RUNNING});
    EXPECT_EQ(status.dwControlsAccepted, DWORD{SERVICE_ACCEPT_STOP});
    EXPECT_EQ(status.dwWin32ExitCode, DWORD{NO_ERROR});
    EXPECT_EQ(status.dwServiceSpecificExitCode, 0u);
    EXPECT_EQ(status.dwCheckPoint, 0u);
    EXPECT_EQ(status.dwWaitHint, 0u);
}

TEST_F(ServiceStateTest, RunningServiceAcceptsStopAlone) {
    ExpectRunning(service.Status());
    EXPECT_EQ(service.Status().dwProcessId, service.ProcessId());
    EXPECT_EQ(Connect().Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
}

TEST_F(ServiceStateTest, OtherControlsChangeNothing) {
    EXPECT_EQ(service.Control(SERVICE_CONTROL_INTERROGATE), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(service.Control(kFirstOwnControl), DWORD{ERROR_SUCCESS});
    EXPECT_NE(service.Control(SERVICE_CONTROL_PAUSE), DWORD{ERROR_SUCCESS});  // not accepted
    service.Control(SERVICE_CONTROL_SHUTDOWN);  // the control manager's own business
    ExpectRunning(service.Status());
    EXPECT_EQ(Connect().Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
}

TEST_F(ServiceStateTest, StopReportsTheSecondCheckpointAndThenStopped) {
    StateNotification pending(SERVICE_NOTIFY_STOP_PENDING);
    StateNotification stopped(SERVICE_NOTIFY_STOPPED);
    EXPECT_EQ(service.Control(SERVICE_CONTROL_STOP), DWORD{ERROR_SUCCESS});
    const SERVICE_STATUS_PROCESS first = pending.Wait();
    EXPECT_EQ(first.dwCurrentState, DWORD{SERVICE_STOP_PENDING});
    EXPECT_EQ(first.dwCheckPoint, 2u);
    EXPECT_EQ(first.dwWaitHint, 0u);
    EXPECT_EQ(first.dwControlsAccepted, DWORD{SERVICE_ACCEPT_STOP});

    const SERVICE_STATUS_PROCESS second = stopped.Wait();
    EXPECT_EQ(second.dwCurrentState, DWORD{SERVICE_STOPPED});
    EXPECT_EQ(second.dwControlsAccepted, DWORD{SERVICE_ACCEPT_STOP});
    EXPECT_EQ(second.dwWin32ExitCode, DWORD{NO_ERROR});
    EXPECT_EQ(second.dwCheckPoint, 0u);
    EXPECT_EQ(second.dwWaitHint, 0u);
    EXPECT_EQ(service.WaitForEnd(), 0u);
}

// --- stopping takes under a second, whatever is going on ---

class StopTest : public ServiceStateTest {
protected:
    /// Until STOPPED is reported, and until the process is gone too.
    void ExpectQuickStop() {
        using Clock = std::chrono::steady_clock;
        const auto start = Clock::now();
        StateNotification stopped(SERVICE_NOTIFY_STOPPED);
        ASSERT_EQ(service.Control(SERVICE_CONTROL_STOP), DWORD{ERROR_SUCCESS});
        stopped.Wait();
        const auto reported = Clock::now() - start;
        EXPECT_EQ(service.WaitForEnd(), 0u);
        const auto ended = Clock::now() - start;
        EXPECT_LT(reported, std::chrono::seconds(1));
        EXPECT_LT(ended, std::chrono::seconds(1));
    }
};

TEST_F(StopTest, WithoutClients) {
    ExpectQuickStop();
}

TEST_F(StopTest, WithClientsConnected) {
    constexpr std::size_t kClients = 50;
    std::vector<RawClient> clients;
    clients.reserve(kClients);
    while (clients.size() < kClients)
        clients.push_back(Connect());
    ExpectQuickStop();
    for (RawClient& client : clients)
        EXPECT_EQ(client.ReceiveUntilClosed(), Bytes());
}

TEST_F(StopTest, WithMegabytesQueuedToAClientThatNeverReads) {
    RawClient client = Connect();
    constexpr std::uint32_t kRequests = 200;
    for (std::uint32_t id = 1; id <= kRequests; ++id)
        client.SendRequest(kTransferIn, id, kCamera, Read6(0, 128));
    bus.WaitFor(camera.Id(), vcam::Counter::kRequests, kRequests, kDeadline);
    ExpectQuickStop();
}

TEST_F(StopTest, WithTransfersPendingInTheDriver) {
    RawClient client = Connect();
    camera.Set(Holds());
    for (std::uint32_t id = 1; id <= 10; ++id)
        client.SendRequest(kTransferIn, id, kCamera, Inquiry());
    bus.WaitForPending(camera.Id(), 10, kDeadline);
    ExpectQuickStop();
    EXPECT_EQ(client.ReceiveUntilClosed(), Bytes());
    EXPECT_EQ(camera.Counters().pending, 0u);
}

TEST_F(StopTest, WithABodyHalfReceived) {
    RawClient client = Connect();
    Bytes half = HeaderBytes({kTransferOut, 1, kCamera, 100'000});
    half.resize(half.size() + 50'000);
    client.Send(half);
    ExpectQuickStop();
}

// --- starting again ---

TEST_F(ServiceStateTest, StartsAgainAtOnceAfterAStop) {
    for (int round = 0; round < 5; ++round) {
        RawClient client = Connect();
        EXPECT_EQ(client.Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
        StateNotification stopped(SERVICE_NOTIFY_STOPPED);
        ASSERT_EQ(service.Control(SERVICE_CONTROL_STOP), DWORD{ERROR_SUCCESS});
        stopped.Wait();
        ASSERT_EQ(service.StartAlone(), DWORD{ERROR_SUCCESS});
        service.WaitUntilStarted();
        ExpectRunning(service.Status());
        EXPECT_EQ(client.ReceiveUntilClosed(), Bytes());
    }
}

TEST_F(ServiceStateTest, UnknownCameraEndsTheProcessAndTheServiceCanBeStartedAtOnce) {
    for (int round = 0; round < 2; ++round) {
        RawClient client = Connect();
        client.SendRequest(kTransferNoData, 1, kCamera + 1, TestUnitReady());
        EXPECT_EQ(client.ReceiveUntilClosed(), Bytes());
        service.WaitForEnd();
        DWORD error = service.StartAlone();
        if (error == ERROR_SERVICE_ALREADY_RUNNING) {
            // The control manager has not seen the end of the process yet.
            StateNotification(SERVICE_NOTIFY_STOPPED).Wait();
            error = service.StartAlone();
        }
        ASSERT_EQ(error, DWORD{ERROR_SUCCESS});
        service.WaitUntilStarted();
        ExpectRunning(service.Status());
    }
    EXPECT_EQ(Connect().Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
}

}  // namespace
}  // namespace system_test
