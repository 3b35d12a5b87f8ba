// The notification window once something has failed: nothing more is done for the messages that are
// queued already, and the loop ends.
#include <new>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/drive_watch.h"
#include "device/windows_exception.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "service/notification_window.h"

extern "C" {
extern decltype(&::GetLogicalDrives) __imp_GetLogicalDrives;
extern decltype(&::GetMessageW) __imp_GetMessageW;
extern decltype(&::PostQueuedCompletionStatus) __imp_PostQueuedCompletionStatus;
extern decltype(&::UnregisterDeviceNotification) __imp_UnregisterDeviceNotification;
}

namespace {

using Post = HookedImport<&__imp_PostQueuedCompletionStatus>;
using Drives = HookedImport<&__imp_GetLogicalDrives>;
using Unregister = HookedImport<&__imp_UnregisterDeviceNotification>;

class WindowFailuresTest : public InProcessService {
protected:
    void SetUp() override {
        InProcessService::SetUp();
        StartServer();
        knownDrives = ::GetLogicalDrives();
    }
    void TearDown() override {
        theServer = nullptr;
        knownDrives = 0;
        RemoveWindow();
        InProcessService::TearDown();
    }

    /// A window goes with its thread; one of the test's own thread has to be destroyed.
    static void RemoveWindow() {
        ::DestroyWindow(std::exchange(notificationWindow, nullptr));
        ::UnregisterClassW(L"OrvikServiceClass", ::GetModuleHandleW(nullptr));
    }

    static LRESULT Send(WPARAM event) {
        const DEV_BROADCAST_HDR record{sizeof(record), DBT_DEVTYP_OEM, 0};
        return NotificationWndProc(nullptr, WM_DEVICECHANGE, event,
                                   reinterpret_cast<LPARAM>(&record));
    }
};

TEST_F(WindowFailuresTest, MessagesBehindAFailureAreNeitherPostedNorUsedForTheDrives) {
    theServer = server.get();
    std::string calls;
    bool fails = true;
    {
        const Post post([&](HANDLE to, DWORD bytes, ULONG_PTR key, OVERLAPPED* state) -> BOOL {
            calls += "post ";
            if (fails) {
                ::SetLastError(ERROR_GEN_FAILURE);
                return FALSE;
            }
            return Post::Original(to, bytes, key, state);
        });
        const Drives drives([&] {
            calls += "drives ";
            return Drives::Original();
        });
        EXPECT_EQ(Send(DBT_DEVICEARRIVAL), TRUE) << "nothing is thrown through the system";
        EXPECT_EQ(calls, "post ");
        fails = false;
        constexpr WPARAM kEvents[] = {DBT_DEVICEARRIVAL, DBT_DEVICEREMOVECOMPLETE, 0x8002};
        for (const WPARAM event : kEvents)
            EXPECT_EQ(Send(event), TRUE);
        EXPECT_EQ(calls, "post ") << "calls for a message behind the failure";
    }
    // The loop of this thread throws the exception that the procedure kept.
    try {
        RunNotificationWindow();
        ADD_FAILURE() << "no exception";
    } catch (const WindowsException& exception) {
        EXPECT_EQ(std::string(exception.what())
                      .find("PostQueuedCompletionStatus failed.  GetLastError() = 0x1f ("),
                  0u)
            << exception.what();
    }
    // It is thrown once; then messages are used again.
    Send(0x8002);
    EXPECT_EQ(port.Operations(), 2u) << "the accept operation and this event";
    port.DispatchQueued();
}

TEST_F(WindowFailuresTest, FailedGetMessageEndsTheThreadWithoutALine) {
    int unregistered = 0;
    DWORD result = 1;
    {
        const HookedImport<&__imp_GetMessageW> getMessage(
            [calls = 0](MSG*, HWND, UINT, UINT) mutable -> BOOL {
                if (++calls > 1)
                    ::ExitThread(2);  // it was called again
                ::SetLastError(ERROR_INVALID_WINDOW_HANDLE);
                return -1;
            });
        const Unregister unregister([&](HDEVNOTIFY notification) {
            ++unregistered;
            return Unregister::Original(notification);
        });
        const UniqueHandle thread(
            ::CreateThread(nullptr, 0, NotificationWindowThread, nullptr, 0, nullptr));
        ASSERT_EQ(::WaitForSingleObject(thread.get(), 20'000), WAIT_OBJECT_0);
        ::GetExitCodeThread(thread.get(), &result);
    }
    EXPECT_EQ(result, 0u) << "the loop went on";
    EXPECT_EQ(unregistered, 1) << "the registration for interfaces is undone";
    EXPECT_EQ(output.Error(), "");
    ExpectServing();
}

TEST_F(WindowFailuresTest, NoMemoryForAnEventEndsTheLoopAndLeavesNothing) {
    ORVIK_NEEDS_GUARDED_HEAP();
    // One after the other: the record's copy, and the operation.
    for (std::size_t number = 1; number <= 2; ++number) {
        SCOPED_TRACE(number);
        theServer = server.get();
        {
            const guarded_heap::FailingAllocation failing(number);
            EXPECT_EQ(Send(DBT_DEVICEARRIVAL), TRUE);
            EXPECT_TRUE(failing.HasFailed());
        }
        EXPECT_EQ(port.Operations(), 1u) << "the accept operation alone";
        EXPECT_THROW(RunNotificationWindow(), std::bad_alloc);
        RemoveWindow();
    }
}

}  // namespace
