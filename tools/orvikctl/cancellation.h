#pragma once

#include <windows.h>

/// From now on Ctrl-C, Ctrl-Break and the closing of the console don't end the program: they ask it
/// to end. A client that is torn away in the middle of a request can end the service's run, for
/// everybody. A second Ctrl-C ends it all the same.
/// Throws Failure.
void CatchCancellation();

/// Signalled when it has been asked.
HANDLE CancellationEvent() noexcept;

/// Throws Failure with ExitCode::kCancelled if it has been asked.
void ThrowIfCancelled();
