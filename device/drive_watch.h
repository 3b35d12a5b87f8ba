#pragma once

#include <array>

#include <windows.h>

// The watch over removable drives: a handle and a handle notification on each, so that the
// notification window hears of their media and of their removal, and a look for the desktop
// application's library on those that appear.
//
// Thread: all of this belongs to the thread of the notification window.

/// What is held of one drive. Both null: the drive is not watched.
struct DriveSlot {
    HDEVNOTIFY notification = nullptr;  // registered for `volume`
    HANDLE volume = nullptr;

    /// Unregisters and closes both, so that the volume can be removed. Does nothing to a slot
    /// without a notification.
    void Release() noexcept;
};

/// Index 0 for drive A to 25 for drive Z.
extern std::array<DriveSlot, 26> driveSlots;

/// The drives present at the last look, as GetLogicalDrives() gives them: bit 0 for drive A. Zero
/// before the first, so that this finds all drives new.
extern DWORD knownDrives;

/// The window that the handle notifications go to. Set before the first ScanDrives().
extern HWND notificationWindow;

/// Watches each removable drive that has come since the last look, and, unless this is the first
/// scan, looks for the library on it if it has a medium. A volume that can't be opened is left out.
/// Throws WindowsException when a notification can't be registered; the drives behind that one have
/// not been looked at then.
void ScanDrives(bool firstScan);

/// Releases the slot of each drive that has come or gone since the last look. A removable drive
/// that has come is not watched then, until it goes and comes again. Throws nothing.
void ForgetChangedDrives();

/// Starts the desktop application if the drive (an upper case letter) holds its library and no main
/// communicator is connected. Throws std::bad_alloc.
void CheckLibraryDrive(wchar_t driveLetter);
