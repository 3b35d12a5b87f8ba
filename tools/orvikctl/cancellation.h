#pragma once

#include <windows.h>

/// From now on Ctrl-C, Ctrl-Break and closing the console request a cancellation instead of ending
/// the process, because a client that disappears during a request can end the service's run for all
/// clients. A second Ctrl-C ends the process at once.
/// Throws Failure.
void CatchCancellation();

/// Signalled when a cancellation has been requested.
HANDLE CancellationEvent() noexcept;

/// Throws Failure with ExitCode::kCancelled if a cancellation has been requested.
void ThrowIfCancelled();
