// The thread of the notification window, with real devices.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <windows.h>

#include "notification_window_fixture.h"
#include "support/deadline.h"
#include "support/removable_drive.h"
#include "windows/unique_handle.h"

namespace {

/// The window's thread, until the end of this.
class WindowThread {
public:
    WindowThread()
        : thread(::CreateThread(nullptr, 0, NotificationWindowThread, nullptr, 0, &id)) {}
    ~WindowThread() {
        while (!HasEnded())  // it may have no message queue yet
            ::PostThreadMessageW(id, WM_QUIT, 0, 0);
        ::UnregisterClassW(L"OrvikServiceClass", ::GetModuleHandleW(nullptr));
        notificationWindow = nullptr;
        knownDrives = 0;
    }
    WindowThread(const WindowThread&) = delete;
    WindowThread& operator=(const WindowThread&) = delete;

    bool HasEnded(DWORD milliseconds = 10) const {
        return ::WaitForSingleObject(thread.get(), milliseconds) == WAIT_OBJECT_0;
    }

private:
    DWORD id = 0;
    UniqueHandle thread;
};

class WindowThreadTest : public ServerWindowTest {
protected:
    void SetUp() override {
        // What the libraries keep of the first exception on another thread.
        std::thread([] {
            try {
                throw std::runtime_error("the first");
            } catch (const std::exception&) {
            }
        }).join();
        ServerWindowTest::SetUp();
    }
};

constexpr DWORD kDeadlineMilliseconds = 20'000;

TEST_F(WindowThreadTest, RegistersForAllInterfacesThenForTheDrivesAndUndoesBothAtItsEnd) {
    WindowCalls calls;
    {
        std::unique_ptr<RemovableDrive> drive;
        if (RemovableDrive::IsSupported())
            drive = std::make_unique<RemovableDrive>(
                L'E', RemovableDrive::Kind::kRemovable,
                RemovableDrive::Medium{{LR"(MISC\database.db)"}, false});
        knownDrives = ::GetLogicalDrives() & ~DWORD{1 << 4};
        calls.made.clear();
        const WindowThread thread;
        while (driveSlots[4].notification == nullptr && drive && !thread.HasEnded(1)) {
        }
    }
    Calls expected{"class", "window", "interfaces", "drives", "unregister"};
    if (RemovableDrive::IsSupported()) {
        expected.insert(expected.end() - 1, "volume");
        expected.insert(expected.end(), "unregister");
    }
    EXPECT_EQ(calls.made, expected) << "and no look for the library";
    EXPECT_TRUE(calls.windowKnownAtScan);
    EXPECT_EQ(driveSlots[4].volume, nullptr);

    EXPECT_EQ(calls.windowClass.style, 0u);
    EXPECT_EQ(calls.windowClass.lpfnWndProc, &NotificationWndProc);
    EXPECT_EQ(calls.windowClass.cbClsExtra + calls.windowClass.cbWndExtra, 0);
    EXPECT_EQ(calls.windowClass.hInstance, ::GetModuleHandleW(nullptr));
    EXPECT_EQ(calls.windowClass.hbrBackground, reinterpret_cast<HBRUSH>(2));
    EXPECT_EQ(calls.windowClass.hIcon, nullptr);
    EXPECT_EQ(calls.windowClass.hCursor, nullptr);
    EXPECT_EQ(calls.windowClass.lpszMenuName, nullptr);
    EXPECT_EQ(calls.windowClass.hIconSm, nullptr);

    EXPECT_EQ(calls.filter.dbcc_size, 32u);
    EXPECT_EQ(calls.filter.dbcc_classguid, GUID{});
    EXPECT_EQ(calls.filter.dbcc_name[0], L'\0');
    EXPECT_EQ(calls.interfaceFlags, DWORD{DEVICE_NOTIFY_ALL_INTERFACE_CLASSES});
    EXPECT_EQ(output.Error(), "");
}

TEST_F(WindowThreadTest, DispatchesPostedMessagesToo) {
    const WindowThread thread;
    while (notificationWindow == nullptr)
        ASSERT_FALSE(thread.HasEnded(1));
    HWND const window = notificationWindow;
    ASSERT_TRUE(::PostMessageW(window, WM_CLOSE, 0, 0));
    const Deadline deadline;
    while (::IsWindow(window) && !deadline.Over())
        ASSERT_FALSE(thread.HasEnded(1));
    EXPECT_FALSE(::IsWindow(window)) << "the window has not got its message";
}

TEST_F(WindowThreadTest, ARealArrivalReachesTheServer) {
    theServer = server.get();
    const WindowThread thread;
    // The system may take a moment until it reports devices, and it does not say when.
    while (output.Wide().find(L"DeviceArrival: ") == std::wstring::npos) {
        ASSERT_FALSE(thread.HasEnded(1));
        bus.Unplug(bus.Plug());
        port.DispatchQueued();
    }
    const auto cameras = [&] {
        std::size_t count = 0;
        for (std::uint32_t id = 1; id < 1000; ++id)
            count += server->FindDevice(id) ? 1 : 0;
        return count;
    };
    port.DispatchUntil("the removal of those before", [&] { return cameras() == 0; });
    const vcam::CameraId camera = Plug();
    port.DispatchUntil("the camera", [&] { return cameras() == 1; });
    bus.Unplug(camera);
    ForgetPlugged();
    port.DispatchUntil("its removal", [&] { return cameras() == 0; });
}

/// Each step whose failure ends the thread.
class FailingWindowThreadTest : public WindowThreadTest,
                                public ::testing::WithParamInterface<const char*> {};

INSTANTIATE_TEST_SUITE_P(Steps, FailingWindowThreadTest,
                         ::testing::Values("class", "window", "interfaces", "volume", "post"),
                         [](const auto& step) { return std::string(step.param); });

TEST_P(FailingWindowThreadTest, EndsWithALineAndTheServiceGoesOn) {
    const std::string step = GetParam();
    std::unique_ptr<RemovableDrive> drive;
    if (step == "volume") {
        if (!RemovableDrive::IsSupported())
            GTEST_SKIP() << "no removable drives can be made here";
        drive = std::make_unique<RemovableDrive>(L'E');
        knownDrives = 0;
    }
    theServer = server.get();
    {
        WindowCalls calls;
        if (step != "post")
            calls.fails = step;
        const WindowThread thread;
        if (step == "post") {
            while (notificationWindow == nullptr)
                ASSERT_FALSE(thread.HasEnded(1));
            ::SendMessageW(notificationWindow, WM_NULL, 0, 0);  // it has made all its calls then
            calls.fails = step;
            const DEV_BROADCAST_HDR record{sizeof(record), DBT_DEVTYP_OEM, 0};
            ::SendMessageW(notificationWindow, WM_DEVICECHANGE, 0x8002,
                           reinterpret_cast<LPARAM>(&record));
        }
        EXPECT_TRUE(thread.HasEnded(kDeadlineMilliseconds));
    }
    const std::string text = step == "post" ? "PostQueuedCompletionStatus failed.  " : "";
    EXPECT_TRUE(output.Error().starts_with("Exception on window thread: " + text +
                                           "GetLastError() = 0x1f ("))
        << output.Error();
    EXPECT_EQ(output.CountError("\n"), 1u) << output.Error();
    if (drive)
        ::CloseHandle(std::exchange(driveSlots[4].volume, nullptr));
    ExpectServing();
}

}  // namespace
