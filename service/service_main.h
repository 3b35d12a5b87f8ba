#pragma once

#include <windows.h>

/// True (1) when the service control manager runs this process, false (0) in the foreground.
/// main() clears it before it calls ServiceMain(); it does not change afterwards.
extern BYTE runningAsService;

/// The body of the service in both run modes: starts everything, runs the dispatcher on the
/// calling thread until a stop control arrives, and takes everything down. In the foreground
/// nothing stops it. The arguments are not read.
///
/// In the foreground it throws WindowsException and the exceptions of completion handlers. As a
/// service it does not return from an exception: the server and the crash server are destroyed, a
/// dump with the text of the exception (protocol/run_end.h) is written if a crash handler is
/// installed, and the process ends with the exit code 0xE04F5256, without reporting STOPPED, so
/// that the service control manager sees a crash and can restart it.
void WINAPI ServiceMain(DWORD argc, LPWSTR* argv);

/// Handles the stop control: reports STOP_PENDING and makes the dispatcher end its loop. Ignores
/// every other control. Runs on the service control dispatcher's thread.
/// Throws WindowsException.
void WINAPI ServiceCtrlHandler(DWORD control);
