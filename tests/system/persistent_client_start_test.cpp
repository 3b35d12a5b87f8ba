// PersistentClient while the service is stopped, and when it starts.

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "installed_service.h"
#include "orvik/persistent_client.h"
#include "support/camera_event_log.h"
#include "support/client_results.h"
#include "support/deadline.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "unit/import_hook.h"

extern "C" {
extern decltype(&::NotifyServiceStatusChangeW) __imp_NotifyServiceStatusChangeW;
extern decltype(&::WaitForSingleObjectEx) __imp_WaitForSingleObjectEx;
}

namespace system_test {
namespace {

using client_test::CameraEventLog;
using client_test::Signal;
using orvik::PersistentClient;

using Notify = HookedImport<&__imp_NotifyServiceStatusChangeW>;
using Wait = HookedImport<&__imp_WaitForSingleObjectEx>;

/// The service under the service control manager, stopped, with one camera. The pauses of a
/// PersistentClient are the alertable waits.
class PersistentClientStart : public SystemTest {
protected:
    PersistentClientStart() { service.Stop(); }

    PluggedCamera camera{bus};
    RunningService service{RunMode::kServiceManager};
    CameraEventLog log;
};

TEST_F(PersistentClientStart, NoticeOfTheServiceControlManagerEndsTheLongestPause) {
    Signal paused;
    std::once_flag once;
    // The pauses before the longest one are left out, and the longest one never ends by itself.
    const Wait wait([&](HANDLE handle, DWORD milliseconds, BOOL alertable) {
        if (!alertable || milliseconds <= 4000)
            return alertable ? DWORD{WAIT_TIMEOUT} : Wait::Original(handle, milliseconds, FALSE);
        std::call_once(once, [&] { paused.Set(); });
        return Wait::Original(handle, INFINITE, TRUE);
    });
    PersistentClient client;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    EXPECT_TRUE(paused.Wait());
    EXPECT_EQ(log.Words(), std::vector<std::string>{"stopped"});
    service.Start();
    EXPECT_EQ(log.WaitFor(3), (std::vector<std::string>{"stopped", "connected", "+1.1"}));
}

TEST_F(PersistentClientStart, PauseEndsByItselfWhereTheServiceControlManagerRefusesTheNotice) {
    Signal refused;
    std::once_flag once;
    const auto test = std::this_thread::get_id();
    const Notify notify([&](SC_HANDLE handle, DWORD mask, SERVICE_NOTIFYW* record) {
        if (std::this_thread::get_id() == test)
            return Notify::Original(handle, mask, record);
        std::call_once(once, [&] { refused.Set(); });
        return DWORD{ERROR_ACCESS_DENIED};
    });
    PersistentClient client;
    const orvik::Subscription subscription = client.Subscribe(log.Handler());
    EXPECT_TRUE(refused.Wait());
    service.Start();
    EXPECT_EQ(log.WaitFor(3), (std::vector<std::string>{"stopped", "connected", "+1.1"}));
}

TEST_F(PersistentClientStart, PauseEndsWithTheClient) {
    Signal paused;
    std::once_flag once;
    const Wait wait([&](HANDLE handle, DWORD milliseconds, BOOL alertable) {
        if (!alertable)
            return Wait::Original(handle, milliseconds, FALSE);
        std::call_once(once, [&] { paused.Set(); });
        const DWORD result = Wait::Original(handle, Deadline().MillisecondsLeft(), TRUE);
        EXPECT_EQ(result, WAIT_OBJECT_0);
        return result;
    });
    {
        const PersistentClient client;
        EXPECT_TRUE(paused.Wait());
    }
    service.Start();  // for the fixture
}

TEST_F(ServiceTest, PauseOfAPersistentClientDoesNotKeepADeletedService) {
    InstallService(ProgramPath(L"OrvikService.exe"));
    Signal paused;
    std::once_flag once;
    const Wait wait([&](HANDLE handle, DWORD milliseconds, BOOL alertable) {
        if (alertable)
            std::call_once(once, [&] { paused.Set(); });
        return Wait::Original(handle, milliseconds, alertable);
    });
    const PersistentClient client;
    EXPECT_TRUE(paused.Wait());
    RemoveInstalledService();  // throws if the service stays
}

}  // namespace
}  // namespace system_test
