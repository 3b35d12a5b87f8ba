#pragma once

#include <windows.h>

/// Waits for one packet on the completion port and hands it to the IoOperation that it belongs to;
/// an aborted one (error 995) is freed without its callback. False: it was the quit operation,
/// which is freed.
/// Throws WindowsException if the wait itself fails, and passes on what a callback throws.
bool DispatchCompletion(HANDLE completionPort);

/// Dispatches until the quit operation comes; what is queued behind it stays on the port. The
/// thread that calls this is the dispatcher thread: every callback runs on it.
/// Throws as DispatchCompletion().
void RunDispatcher(HANDLE completionPort);
