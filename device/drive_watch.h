#pragma once

#include <array>

#include <windows.h>

// The watch over removable drives. Each has an open handle and a handle notification, through which
// the notification window learns about its media and its removal. A drive that appears is searched
// for the desktop application's library.
//
// Thread: all of this belongs to the thread of the notification window.

/// The handles of one watched drive. Both are null when the drive is not watched.
struct DriveSlot {
    HDEVNOTIFY notification = nullptr;  // registered for `volume`
    HANDLE volume = nullptr;

    /// Unregisters and closes both, so that the volume can be removed. Does nothing to a slot
    /// without a notification.
    void Release() noexcept;
};

/// Index 0 for drive A to 25 for drive Z.
extern std::array<DriveSlot, 26> driveSlots;

/// The drives present when they were last compared, as GetLogicalDrives() returns them: bit 0 for
/// drive A. Zero at first, so that the first scan finds every drive new.
extern DWORD knownDrives;

/// The window that the handle notifications go to. Set before the first ScanDrives().
extern HWND notificationWindow;

/// Watches each removable drive that has appeared since `knownDrives` was last updated. Unless this
/// is the first scan, it also searches the drive for the library if there is a medium in it. A
/// volume that can't be opened is skipped.
/// Throws WindowsException when a notification can't be registered; the drives after that one have
/// not been examined then.
void ScanDrives(bool firstScan);

/// Releases the slot of each drive that has appeared or disappeared since `knownDrives` was last
/// updated. A removable drive that is found to have appeared here is not watched until it
/// disappears and appears again. Throws nothing.
void ForgetChangedDrives();

/// Starts the desktop application if the drive (an upper-case letter) holds its library and no main
/// communicator is connected. Throws std::bad_alloc.
void CheckLibraryDrive(wchar_t driveLetter);
