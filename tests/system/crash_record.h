// The record that crash_recorder, in place of the crash reporter, sends to the test that put it
// beside its service.
#pragma once

#include <windows.h>

namespace system_test {

/// The mailslot that the test listens at.
inline constexpr wchar_t kCrashMailslot[] = LR"(\\.\mailslot\orvik-test-crashes)";

/// How the program was started, as it sees it itself. One message of the mailslot.
struct CrashRecord {
    DWORD processId;
    wchar_t commandLine[1024];
    wchar_t desktop[64];
    wchar_t temporaryFolder[MAX_PATH + 1];  // that of the process that crashed
    wchar_t localFolder[MAX_PATH];          // FOLDERID_LocalAppData, likewise
    BOOL hasConsole;
};

}  // namespace system_test
