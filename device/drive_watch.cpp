#include "device/drive_watch.h"

#include <cstddef>
#include <string>

#include <windows.h>

#include <dbt.h>
#include <shlwapi.h>

#include "device/windows_exception.h"
#include "server/server.h"

std::array<DriveSlot, 26> driveSlots;
DWORD knownDrives = 0;
HWND notificationWindow = nullptr;

namespace {

/// Updates `knownDrives`. Returns a bit for each drive that has appeared or disappeared since.
DWORD ChangedDrives() noexcept {
    const DWORD present = ::GetLogicalDrives();
    const DWORD changed = knownDrives ^ present;
    knownDrives = present;
    return changed;
}

/// Fills the slot for a root such as L"E:". Nothing happens if the volume can't be opened.
bool Watch(DriveSlot& slot, const std::wstring& root) {
    const HANDLE volume = ::CreateFileW((LR"(\\.\)" + root).c_str(), 0,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, 0, nullptr);
    if (volume == INVALID_HANDLE_VALUE)
        return false;
    slot.volume = volume;

    DEV_BROADCAST_HANDLE filter{};
    filter.dbch_size = sizeof(filter);
    filter.dbch_devicetype = DBT_DEVTYP_HANDLE;
    filter.dbch_handle = volume;
    const HDEVNOTIFY notification =
        ::RegisterDeviceNotificationW(notificationWindow, &filter, DEVICE_NOTIFY_WINDOW_HANDLE);
    if (notification == nullptr)
        throw WindowsException();
    slot.notification = notification;
    return true;
}

}  // namespace

void DriveSlot::Release() noexcept {
    if (notification == nullptr)
        return;
    ::UnregisterDeviceNotification(notification);
    notification = nullptr;
    ::CloseHandle(volume);
    volume = nullptr;
}

void ScanDrives(bool firstScan) {
    std::wstring root = L"A:";
    std::size_t index = 0;
    for (DWORD changed = ChangedDrives(); changed != 0; changed >>= 1) {
        // A drive that has disappeared has no root any more, so it does not count as removable.
        if ((changed & 1) != 0 && ::GetDriveTypeW(root.c_str()) == DRIVE_REMOVABLE) {
            DriveSlot& slot = driveSlots[index];
            slot.Release();
            if (Watch(slot, root) && !firstScan && ::PathFileExistsW(root.c_str()))
                CheckLibraryDrive(root[0]);
        }
        ++root[0];
        ++index;
    }
}

void ForgetChangedDrives() {
    std::size_t index = 0;
    for (DWORD changed = ChangedDrives(); changed != 0; changed >>= 1) {
        if ((changed & 1) != 0)
            driveSlots[index].Release();
        ++index;
    }
}

void CheckLibraryDrive(wchar_t driveLetter) {
    const std::wstring folder = driveLetter + std::wstring(LR"(:\MISC\)");
    if (!::PathFileExistsW((folder + L"orviklibrary.db").c_str()) &&
        !::PathFileExistsW((folder + L"database.db").c_str()))
        return;
    // The one call into the server that does not go through the port, see there.
    if (Server* const server = theServer)
        server->LaunchIfNoMainCommunicator();
}
