// The notification window: its procedure called with what the system rarely or never sends here,
// and its thread with real devices.

#include "service/notification_window.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <shlwapi.h>

#include "device/drive_watch.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "protocol/message.h"
#include "support/removable_drive.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::CreateWindowExW) __imp_CreateWindowExW;
extern decltype(&::GetLogicalDrives) __imp_GetLogicalDrives;
extern decltype(&::PathFileExistsW) __imp_PathFileExistsW;
extern decltype(&::PostQueuedCompletionStatus) __imp_PostQueuedCompletionStatus;
extern decltype(&::RegisterClassExW) __imp_RegisterClassExW;
extern decltype(&::RegisterDeviceNotificationW) __imp_RegisterDeviceNotificationW;
extern decltype(&::UnregisterDeviceNotification) __imp_UnregisterDeviceNotification;
}

namespace {

constexpr GUID kMediaArrival = {
    0xD07433C0, 0xA98E, 0x11D2, {0x91, 0x7A, 0x00, 0xA0, 0xC9, 0x06, 0x8F, 0xF3}};
constexpr GUID kConfigurationChange = {
    0x2DE97F84, 0x4C06, 0x11D2, {0xA5, 0x32, 0x00, 0x60, 0x97, 0x13, 0x05, 0x5A}};
constexpr GUID kOtherEvent = {
    0xD07433C1, 0xA98E, 0x11D2, {0x91, 0x7A, 0x00, 0xA0, 0xC9, 0x06, 0x8F, 0xF3}};

/// What the window's code asks of Windows while this lives: a text for each call. Anything that
/// `fails` names fails.
class WindowCalls {
public:
    WindowCalls()
        : registerClass(&__imp_RegisterClassExW, RegisterClassHook),
          createWindow(&__imp_CreateWindowExW, CreateWindowHook),
          drives(&__imp_GetLogicalDrives, Drives),
          exists(&__imp_PathFileExistsW, Exists),
          post(&__imp_PostQueuedCompletionStatus, Post),
          registerHook(&__imp_RegisterDeviceNotificationW, Register),
          unregister(&__imp_UnregisterDeviceNotification, Unregister) {
        current = this;
    }
    ~WindowCalls() { current = nullptr; }
    WindowCalls(const WindowCalls&) = delete;
    WindowCalls& operator=(const WindowCalls&) = delete;

    std::vector<std::string> made;
    std::string fails;
    WNDCLASSEXW windowClass{};
    DEV_BROADCAST_DEVICEINTERFACE_W filter{};
    DWORD interfaceFlags = 0;
    bool windowKnownAtScan = false;
    bool fakeUnregister = false;

private:
    bool Note(const std::string& call) {
        made.push_back(call);
        if (fails != call)
            return true;
        ::SetLastError(ERROR_GEN_FAILURE);
        return false;
    }
    static ATOM WINAPI RegisterClassHook(const WNDCLASSEXW* wanted) {
        current->windowClass = *wanted;
        return current->Note("class") ? current->registerClass.Original()(wanted) : ATOM{0};
    }
    static HWND WINAPI CreateWindowHook(DWORD extended, LPCWSTR name, LPCWSTR title, DWORD style,
                                        int x, int y, int width, int height, HWND parent,
                                        HMENU menu, HINSTANCE instance, LPVOID parameter) {
        EXPECT_EQ(extended, 0u);
        EXPECT_EQ(std::wstring(name), L"OrvikServiceClass");
        EXPECT_EQ(std::wstring(title), kServiceName);
        EXPECT_EQ(style, 0u);
        EXPECT_EQ(x, 0);
        EXPECT_EQ(y, 0);
        EXPECT_EQ(width, CW_USEDEFAULT);
        EXPECT_EQ(height, CW_USEDEFAULT);
        EXPECT_EQ(parent, HWND_MESSAGE);
        EXPECT_EQ(menu, nullptr);
        EXPECT_EQ(instance, ::GetModuleHandleW(nullptr));
        EXPECT_EQ(parameter, nullptr);
        if (!current->Note("window"))
            return nullptr;
        return current->createWindow.Original()(extended, name, title, style, x, y, width, height,
                                                parent, menu, instance, parameter);
    }
    static DWORD WINAPI Drives() {
        current->windowKnownAtScan = notificationWindow != nullptr;
        current->made.emplace_back("drives");
        return current->drives.Original()();
    }
    static BOOL WINAPI Exists(LPCWSTR path) {
        current->made.push_back("exists " + std::string(1, static_cast<char>(path[0])));
        return current->exists.Original()(path);
    }
    static BOOL WINAPI Post(HANDLE port, DWORD bytes, ULONG_PTR key, LPOVERLAPPED overlapped) {
        if (!current->Note("post"))
            return FALSE;
        return current->post.Original()(port, bytes, key, overlapped);
    }
    static HDEVNOTIFY WINAPI Register(HANDLE recipient, LPVOID filter, DWORD flags) {
        const auto* const header = static_cast<const DEV_BROADCAST_HDR*>(filter);
        const bool isInterface = header->dbch_devicetype == DBT_DEVTYP_DEVICEINTERFACE;
        if (isInterface) {
            std::memcpy(&current->filter, filter, sizeof(current->filter));
            current->interfaceFlags = flags;
        }
        if (!current->Note(isInterface ? "interfaces" : "volume"))
            return nullptr;
        return current->registerHook.Original()(recipient, filter, flags);
    }
    static BOOL WINAPI Unregister(HDEVNOTIFY notification) {
        current->made.emplace_back("unregister");
        return current->fakeUnregister || current->unregister.Original()(notification);
    }

    static inline WindowCalls* current = nullptr;
    ImportHook<decltype(&::RegisterClassExW)> registerClass;
    ImportHook<decltype(&::CreateWindowExW)> createWindow;
    ImportHook<decltype(&::GetLogicalDrives)> drives;
    ImportHook<decltype(&::PathFileExistsW)> exists;
    ImportHook<decltype(&::PostQueuedCompletionStatus)> post;
    ImportHook<decltype(&::RegisterDeviceNotificationW)> registerHook;
    ImportHook<decltype(&::UnregisterDeviceNotification)> unregister;
};

using Calls = std::vector<std::string>;

DEV_BROADCAST_HANDLE HandleRecord(HANDLE volume, const GUID& event = {}) {
    DEV_BROADCAST_HANDLE record{};
    record.dbch_size = sizeof(record);
    record.dbch_devicetype = DBT_DEVTYP_HANDLE;
    record.dbch_handle = volume;
    record.dbch_eventguid = event;
    return record;
}

template <typename Record>
LRESULT Send(WPARAM event, const Record& record) {
    return NotificationWndProc(nullptr, WM_DEVICECHANGE, event, reinterpret_cast<LPARAM>(&record));
}

/// A slot with an event object in place of the volume: closing it is seen.
struct FilledSlot {
    explicit FilledSlot(std::size_t slotIndex) : index(slotIndex) {
        driveSlots[index].volume = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        driveSlots[index].notification = reinterpret_cast<HDEVNOTIFY>(index + 1);
    }
    HANDLE Volume() const { return driveSlots[index].volume; }
    std::size_t index;
};

class WindowProcedureTest : public ::testing::Test {
protected:
    WindowProcedureTest() {
        calls.fakeUnregister = true;
        knownDrives = ::GetLogicalDrives();
        calls.made.clear();
    }
    ~WindowProcedureTest() override {
        for (DriveSlot& slot : driveSlots)
            slot.Release();
        knownDrives = 0;
        ::DestroyWindow(window);
    }

    const HWND window = ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                          nullptr, nullptr);
    WindowCalls calls;
};

TEST_F(WindowProcedureTest, NewMediumInAnyDriveIsLookedAtByItsLetter) {
    std::vector<FilledSlot> slots;
    for (std::size_t index = 0; index < driveSlots.size(); ++index)
        slots.emplace_back(index);
    for (const FilledSlot& slot : slots) {
        const std::string letter(1, static_cast<char>('A' + slot.index));
        for (const GUID& event : {kMediaArrival, kConfigurationChange}) {
            calls.made.clear();
            EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(slot.Volume(), event)), TRUE);
            EXPECT_EQ(calls.made, (Calls{"exists " + letter, "exists " + letter}));
        }
    }
}

TEST_F(WindowProcedureTest, OtherCustomEventsAndVolumesChangeNothing) {
    const FilledSlot slot(4);
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(slot.Volume(), kOtherEvent)), TRUE);
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(slot.Volume(), GUID{})), TRUE);
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(&calls, kMediaArrival)), TRUE);
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(nullptr, kMediaArrival)), TRUE)
        << "no slot's volume is null: unused ones have none";
    EXPECT_EQ(calls.made, Calls());
    EXPECT_NE(slot.Volume(), nullptr);
}

TEST_F(WindowProcedureTest, RecordsTooShortForAHandleAreNotReadAsOne) {
    const FilledSlot slot(4);
    DEV_BROADCAST_HANDLE record = HandleRecord(slot.Volume(), kMediaArrival);
    for (const DWORD size : {DWORD{sizeof(DEV_BROADCAST_HDR)}, DWORD{23}}) {
        record.dbch_size = size;
        EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, record), TRUE);
        EXPECT_EQ(Send(DBT_CUSTOMEVENT, record), TRUE);
    }
    record.dbch_size = 47;
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, record), TRUE);
    EXPECT_EQ(calls.made, Calls());
    record.dbch_size = 24;  // to the handle's end
    EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, record), TRUE);
    EXPECT_EQ(slot.Volume(), nullptr);
}

TEST_F(WindowProcedureTest, RemovalOfAWatchedVolumeIsGrantedAndItsHandlesAreClosed) {
    for (std::size_t index = 0; index < driveSlots.size(); ++index) {
        const FilledSlot slot(index);
        const FilledSlot other((index + 1) % driveSlots.size());
        const HANDLE volume = slot.Volume();
        calls.made.clear();
        EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, HandleRecord(volume)), TRUE);
        EXPECT_EQ(calls.made, Calls{"unregister"});
        EXPECT_EQ(driveSlots[index].volume, nullptr);
        EXPECT_EQ(driveSlots[index].notification, nullptr);
        DWORD flags = 0;
        EXPECT_FALSE(::GetHandleInformation(volume, &flags)) << "it is closed";
        EXPECT_NE(other.Volume(), nullptr);
        driveSlots[other.index].Release();
    }
}

TEST_F(WindowProcedureTest, RemovalOfAnythingElseIsGrantedAndChangesNothing) {
    const FilledSlot slot(4);
    EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, HandleRecord(&calls)), TRUE);
    EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, HandleRecord(nullptr)), TRUE);   // empty slots have none
    driveSlots[7].volume = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);  // without notification
    EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, HandleRecord(driveSlots[7].volume)), TRUE);
    EXPECT_NE(driveSlots[7].volume, nullptr);
    EXPECT_EQ(calls.made, Calls());
    EXPECT_NE(slot.Volume(), nullptr);
    ::CloseHandle(driveSlots[7].volume);
    driveSlots[7].volume = nullptr;
}

TEST_F(WindowProcedureTest, EveryArrivalAndRemovalLooksAtTheDrivesAndNothingElseDoes) {
    const DEV_BROADCAST_HDR record{sizeof(record), DBT_DEVTYP_OEM, 0};
    EXPECT_EQ(Send(DBT_DEVICEARRIVAL, record), TRUE);
    EXPECT_EQ(Send(DBT_DEVICEREMOVECOMPLETE, record), TRUE);
    EXPECT_EQ(calls.made, (Calls{"drives", "drives"}));
    for (const WPARAM event : {0x0000, 0x0007, 0x0018, 0x8002, 0x8003, 0x8005, 0x8007, 0xFFFF})
        EXPECT_EQ(Send(event, record), TRUE) << event;
    EXPECT_EQ(calls.made.size(), 2u);
}

TEST_F(WindowProcedureTest, ArrivalScansNewDrivesForTheLibraryAndRemovalForgetsThem) {
    if (!RemovableDrive::IsSupported())
        GTEST_SKIP() << "no removable drives can be made here";
    notificationWindow = window;
    const DEV_BROADCAST_HDR record{sizeof(record), DBT_DEVTYP_OEM, 0};
    {
        RemovableDrive drive(L'E');
        calls.made.clear();
        Send(DBT_DEVICEARRIVAL, record);
        EXPECT_EQ(calls.made, (Calls{"drives", "volume", "exists E", "exists E", "exists E"}));
    }
    calls.made.clear();
    calls.fakeUnregister = false;
    Send(DBT_DEVICEREMOVECOMPLETE, record);
    EXPECT_EQ(calls.made, (Calls{"drives", "unregister"}));
}

// --- with a server ---

class ServerWindowTest : public InProcessService {
protected:
    void SetUp() override {
        InProcessService::SetUp();
        StartServer();
        knownDrives = ::GetLogicalDrives();
    }
    void TearDown() override {
        theServer = nullptr;
        InProcessService::TearDown();
        knownDrives = 0;
    }
};

TEST_F(ServerWindowTest, EachDeviceChangeIsPostedFirstAndThenUsedForTheDrives) {
    theServer = server.get();
    const DEV_BROADCAST_HDR record{sizeof(record), DBT_DEVTYP_OEM, 0};
    for (const WPARAM event : {0x0007, 0x8000, 0x8001, 0x8004, 0x8006}) {
        WindowCalls calls;
        DEV_BROADCAST_HANDLE handleRecord = HandleRecord(nullptr);
        EXPECT_EQ(Send(event, handleRecord), TRUE);
        EXPECT_EQ(calls.made,
                  event == 0x8000 || event == 0x8004 ? (Calls{"post", "drives"}) : Calls{"post"});
    }
    EXPECT_EQ(port.Operations(), 6u);  // those five and the listening instance's
    port.DispatchQueued();
}

TEST_F(ServerWindowTest, NothingIsPostedBeforeThereIsAServer) {
    const WindowCalls calls;
    Send(DBT_DEVICEARRIVAL, HandleRecord(nullptr));
    EXPECT_EQ(calls.made, Calls{"drives"});
}

TEST_F(ServerWindowTest, OtherMessagesAreTheSystems) {
    theServer = server.get();
    const HWND window = ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                          nullptr, nullptr);
    ::SetWindowLongPtrW(window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(NotificationWndProc));
    const WindowCalls calls;
    ::SetWindowTextW(window, L"four");
    EXPECT_EQ(::SendMessageW(window, WM_GETTEXTLENGTH, 0, 0), 4);
    EXPECT_EQ(calls.made, Calls());
    ::DestroyWindow(window);
}

// --- the thread ---

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

TEST_F(WindowThreadTest, ARealArrivalReachesTheServer) {
    theServer = server.get();
    const WindowThread thread;
    // The system may take a moment until it tells of devices; nothing says when.
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
