#include "cancellation.h"

#include "exit_code.h"
#include "windows/unique_handle.h"

namespace {

UniqueHandle event;

/// Called by the system on a thread of its own.
BOOL WINAPI OnConsoleEvent(DWORD kind) {
    const bool first = ::WaitForSingleObject(event.get(), 0) != WAIT_OBJECT_0;
    ::SetEvent(event.get());
    if (kind == CTRL_C_EVENT || kind == CTRL_BREAK_EVENT)
        return first;
    // The console is being closed: the system ends the process when this function returns, or after
    // some seconds. The main thread needs those to disconnect.
    ::Sleep(INFINITE);
    return TRUE;
}

}  // namespace

void CatchCancellation() {
    event.reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!event || !::SetConsoleCtrlHandler(OnConsoleEvent, TRUE))
        throw SystemFailure("cannot install the handler of Ctrl-C");
}

HANDLE CancellationEvent() noexcept {
    return event.get();
}

void ThrowIfCancelled() {
    if (::WaitForSingleObject(event.get(), 0) == WAIT_OBJECT_0)
        throw Failure(ExitCode::kCancelled, "cancelled");
}
