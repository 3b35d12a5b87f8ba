// For test programs in place of others: how they report their start to the test.
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
bool SendToMailslot(const wchar_t* mailslot, const Record& record) {
    // Another program may be writing at this moment: they share the mailslot.
    const HANDLE file = ::CreateFileW(mailslot, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    const BOOL sent = ::WriteFile(file, &record, sizeof(record), &written, nullptr);
    ::CloseHandle(file);
    return sent != FALSE;
}

}  // namespace system_test
