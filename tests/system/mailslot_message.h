// For programs that stand in for others: how they tell the test of their start.
#pragma once

#include <windows.h>

namespace system_test {

/// Whether this program has a console.
inline BOOL HasConsole() {
    const HANDLE console = ::CreateFileW(L"CONOUT$", GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                         OPEN_EXISTING, 0, nullptr);
    return console != INVALID_HANDLE_VALUE;
}

/// Sends one message to a mailslot. False if that fails.
template <class Record>
bool Tell(const wchar_t* mailslot, const Record& record) {
    // Another one may be telling of its start at this moment: they share the writing.
    const HANDLE file = ::CreateFileW(mailslot, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    const BOOL told = ::WriteFile(file, &record, sizeof(record), &written, nullptr);
    ::CloseHandle(file);
    return told != FALSE;
}

}  // namespace system_test
