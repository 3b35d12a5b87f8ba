// The function that the protocol page shows.
#include "disconnect.h"

#include <vector>

/// Closes `pipe` at a moment that is safe for the service.
void Disconnect(HANDLE pipe, bool newestRequestSucceeded, ULONG processOfService) {
    const wchar_t* const name = L"\\\\.\\pipe\\orvikcamera";
    HANDLE second = INVALID_HANDLE_VALUE;
    std::vector<HANDLE> others;  // of other servers; open, so that the next one is another
    const ULONGLONG deadline = GetTickCount64() + 2000;
    while (!newestRequestSucceeded && GetTickCount64() < deadline) {
        WaitNamedPipeW(name, 100);
        second = CreateFileW(name, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                             SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr);
        if (second == INVALID_HANDLE_VALUE)
            continue;  // another client was faster
        ULONG process = 0;
        if (GetNamedPipeServerProcessId(second, &process) && process == processOfService) {
            WaitNamedPipeW(name, 2000);  // yet another instance waits: both reads are pending
            break;
        }
        others.push_back(second);
        second = INVALID_HANDLE_VALUE;
    }
    CloseHandle(pipe);
    if (second != INVALID_HANDLE_VALUE)
        CloseHandle(second);
    for (const HANDLE other : others)
        CloseHandle(other);
}
