// The record that launch_recorder sends to the test that has registered it as the desktop
// application.
#pragma once

#include <cstddef>

#include <windows.h>

namespace system_test {

/// The mailslot that the test listens at.
inline constexpr wchar_t kLaunchMailslot[] = LR"(\\.\mailslot\orvik-test-launches)";

/// How the program was started, as it sees it itself. One message of the mailslot.
struct LaunchRecord {
    wchar_t program[260];
    wchar_t desktop[64];
    wchar_t userProfile[260];                  // from its environment
    std::byte userSid[SECURITY_MAX_SID_SIZE];  // of its token
    DWORD flags;                               // of its STARTUPINFOW
    WORD showWindow;
    WORD argumentCount;  // the program's name is one
    DWORD sessionId;
    BOOL hasConsole;
};

}  // namespace system_test
