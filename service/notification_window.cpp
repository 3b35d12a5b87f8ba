#include "service/notification_window.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <iostream>
#include <utility>

#include "device/drive_watch.h"
#include "device/windows_exception.h"
#include "protocol/message.h"
#include "server/server.h"

namespace {

constexpr wchar_t kClassName[] = L"OrvikServiceClass";

// Custom events of a volume, as <ioevent.h> of the driver kit defines them.
/// A medium has been put into the drive.
constexpr GUID kMediaArrival = {
    0xD07433C0, 0xA98E, 0x11D2, {0x91, 0x7A, 0x00, 0xA0, 0xC9, 0x06, 0x8F, 0xF3}};
/// The volume's size or place has changed.
constexpr GUID kVolumePhysicalConfigurationChange = {
    0x2DE97F84, 0x4C06, 0x11D2, {0xA5, 0x32, 0x00, 0x60, 0x97, 0x13, 0x05, 0x5A}};

/// The exception of the window procedure, which RunNotificationWindow() throws.
std::exception_ptr windowFailure;

/// The record as one about a handle. Null if it ends before the offset `end`: records about device
/// interfaces arrive with the same events.
const DEV_BROADCAST_HANDLE* AsHandleRecord(const DEV_BROADCAST_HDR* record,
                                           std::size_t end) noexcept {
    return record->dbch_size < end ? nullptr
                                   : reinterpret_cast<const DEV_BROADCAST_HANDLE*>(record);
}

/// The slot that watches this volume; the end of `driveSlots` if none does.
auto FindSlot(HANDLE volume) noexcept {
    return std::find_if(driveSlots.begin(), driveSlots.end(), [volume](const DriveSlot& slot) {
        return slot.volume != nullptr && slot.volume == volume;
    });
}

void OnQueryRemove(const DEV_BROADCAST_HDR* record) noexcept {
    const auto* const removal =
        AsHandleRecord(record, offsetof(DEV_BROADCAST_HANDLE, dbch_hdevnotify));
    if (removal == nullptr)
        return;
    const auto slot = FindSlot(removal->dbch_handle);
    if (slot != driveSlots.end())
        slot->Release();
}

void OnCustomEvent(const DEV_BROADCAST_HDR* record) {
    const auto* const event =
        AsHandleRecord(record, offsetof(DEV_BROADCAST_HANDLE, dbch_nameoffset));
    if (event == nullptr || (event->dbch_eventguid != kMediaArrival &&
                             event->dbch_eventguid != kVolumePhysicalConfigurationChange))
        return;
    const auto slot = FindSlot(event->dbch_handle);
    if (slot != driveSlots.end())
        CheckLibraryDrive(static_cast<wchar_t>(L'A' + (slot - driveSlots.begin())));
}

HDEVNOTIFY RegisterForAllInterfaces(HWND window) {
    DEV_BROADCAST_DEVICEINTERFACE_W filter{};
    filter.dbcc_size = sizeof(filter);
    filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    const HDEVNOTIFY notification = ::RegisterDeviceNotificationW(
        window, &filter, DEVICE_NOTIFY_WINDOW_HANDLE | DEVICE_NOTIFY_ALL_INTERFACE_CLASSES);
    if (notification == nullptr)
        throw WindowsException();
    return notification;
}

}  // namespace

DWORD WINAPI NotificationWindowThread(LPVOID /*parameter*/) {
    try {
        RunNotificationWindow();
    } catch (const std::exception& exception) {
        std::cerr << "Exception on window thread: " << exception.what() << std::endl;
    }
    return 0;
}

void RunNotificationWindow() {
    const HINSTANCE instance = ::GetModuleHandleW(nullptr);
    WNDCLASSEXW windowClass{};
    windowClass.cbSize = sizeof(windowClass);
    windowClass.lpfnWndProc = NotificationWndProc;
    windowClass.hInstance = instance;
    windowClass.hbrBackground = reinterpret_cast<HBRUSH>(std::uintptr_t{COLOR_BACKGROUND} + 1);
    windowClass.lpszClassName = kClassName;
    if (::RegisterClassExW(&windowClass) == 0)
        throw WindowsException();

    const HWND window = ::CreateWindowExW(0, kClassName, kServiceName, 0, 0, 0, CW_USEDEFAULT,
                                          CW_USEDEFAULT, HWND_MESSAGE, nullptr, instance, nullptr);
    if (window == nullptr)
        throw WindowsException();

    const HDEVNOTIFY interfaces = RegisterForAllInterfaces(window);
    notificationWindow = window;
    ScanDrives(true);

    MSG message;
    while (::GetMessageW(&message, nullptr, 0, 0) > 0) {
        ::TranslateMessage(&message);
        ::DispatchMessageW(&message);
    }
    if (windowFailure)
        std::rethrow_exception(std::exchange(windowFailure, nullptr));

    ::UnregisterDeviceNotification(interfaces);
    for (DriveSlot& slot : driveSlots)
        slot.Release();
}

LRESULT CALLBACK NotificationWndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam) {
    if (message != WM_DEVICECHANGE)
        return ::DefWindowProcW(window, message, wParam, lParam);
    if (windowFailure)
        return TRUE;  // the loop is about to end
    const auto* const record = reinterpret_cast<const DEV_BROADCAST_HDR*>(lParam);
    try {
        if (Server* const server = theServer)
            server->PostDeviceEvent(wParam, record);
        return OnDriveDeviceChange(wParam, record);
    } catch (...) {
        // The system may swallow an exception on its way to the message loop.
        windowFailure = std::current_exception();
        ::PostQuitMessage(0);
        return TRUE;
    }
}

LRESULT OnDriveDeviceChange(WPARAM eventCode, const DEV_BROADCAST_HDR* record) {
    switch (eventCode) {
        case DBT_DEVICEARRIVAL:
            ScanDrives(false);
            break;
        case DBT_DEVICEQUERYREMOVE:
            OnQueryRemove(record);
            break;
        case DBT_DEVICEREMOVECOMPLETE:
            ForgetChangedDrives();
            break;
        case DBT_CUSTOMEVENT:
            OnCustomEvent(record);
            break;
        default:
            break;
    }
    return TRUE;
}
