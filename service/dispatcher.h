#pragma once

#include <windows.h>

/// Waits for one packet on the completion port and hands it to the IoOperation that it belongs to.
/// An aborted operation (error 995) is freed without its callback. Returns false if the packet was
/// that of the quit operation, which is freed.
/// Throws WindowsException if the wait itself fails, and the exceptions of callbacks.
bool DispatchCompletion(HANDLE completionPort);

/// Dispatches until the quit operation comes. Packets that are queued behind it stay on the port.
/// The calling thread is the dispatcher thread: every callback runs on it.
/// Throws as DispatchCompletion().
void RunDispatcher(HANDLE completionPort);
