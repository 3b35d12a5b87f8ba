#pragma once

#include <windows.h>

// After <windows.h>, whose types it uses.
#include <dbt.h>

// The hidden window through which Windows notifies the service of devices that arrive and leave,
// and its thread. Each notification goes to the server through the completion port, and then to the
// watch over removable drives (device/drive_watch.h), which belongs to this thread.

/// The thread's procedure: runs the window until the process ends. A failure writes one line to
/// standard error and ends the thread; the service continues without notifications.
/// `parameter` is not used; the result is 0.
DWORD WINAPI NotificationWindowThread(LPVOID parameter);

/// Makes the window, registers it for all device interfaces and the removable drives present, and
/// runs its message loop. Returns when WM_QUIT is posted or the wait for a message fails. The
/// service posts WM_QUIT only after an exception in the window procedure, which is then thrown
/// here. Throws WindowsException and std::bad_alloc, its own and those of the window procedure.
void RunNotificationWindow();

/// The window procedure. It keeps an exception and posts WM_QUIT, and RunNotificationWindow()
/// throws the exception: the system may swallow one that passes through its own frames.
LRESULT CALLBACK NotificationWndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

/// Handles a WM_DEVICECHANGE for the watch over removable drives. `record` must not be null; for
/// some events it is read as a DEV_BROADCAST_HANDLE, within its `dbch_size`. The result is always
/// TRUE: a request to remove a drive is never refused.
/// Throws WindowsException and std::bad_alloc.
LRESULT OnDriveDeviceChange(WPARAM eventCode, const DEV_BROADCAST_HDR* record);
