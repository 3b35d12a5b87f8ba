#pragma once

#include <windows.h>

// After <windows.h>, whose types it uses.
#include <dbt.h>

// The hidden window through which Windows tells the service of devices that come and go, and its
// thread. Whatever it hears goes to the server over the completion port, and then to the watch over
// removable drives (device/drive_watch.h), which is this thread's own.

/// The thread's procedure: runs the window for as long as the process lives. A failure is one line
/// on standard error and the end of the thread: the service goes on without notifications.
/// `parameter` is not used; the result is 0.
DWORD WINAPI NotificationWindowThread(LPVOID parameter);

/// Makes the window, registers it for all device interfaces and the removable drives present, and
/// runs its message loop. Returns when somebody posts WM_QUIT, which the service never does.
/// Throws WindowsException and std::bad_alloc, its own and those of the window procedure.
void RunNotificationWindow();

/// The window procedure. An exception ends the message loop of the calling thread and is thrown by
/// RunNotificationWindow(): none gets through the system's frames between the two.
LRESULT CALLBACK NotificationWndProc(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

/// What a WM_DEVICECHANGE means to the watch over removable drives. For some events the record is
/// read as a DEV_BROADCAST_HANDLE, for none may it be null. The result is always TRUE: a request to
/// remove a drive is never refused.
/// Throws WindowsException and std::bad_alloc.
LRESULT OnDriveDeviceChange(WPARAM eventCode, const DEV_BROADCAST_HDR* record);
