// Stands in for the desktop application: tells the test how it was started, and ends.

#include "launch_record.h"

#include <iterator>

namespace {

void GetUserSid(std::byte* sid, DWORD size) {
    HANDLE token = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token))
        return;
    alignas(TOKEN_USER) std::byte buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD returned = 0;
    if (::GetTokenInformation(token, TokenUser, buffer, sizeof(buffer), &returned))
        ::CopySid(size, sid, reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid);
    ::CloseHandle(token);
}

}  // namespace

int main(int argc, char* /*argv*/[]) {
    system_test::LaunchRecord record{};
    ::GetModuleFileNameW(nullptr, record.program, static_cast<DWORD>(std::size(record.program)));
    GetUserSid(record.userSid, sizeof(record.userSid));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    ::GetStartupInfoW(&startup);
    if (startup.lpDesktop != nullptr)
        ::lstrcpynW(record.desktop, startup.lpDesktop, static_cast<int>(std::size(record.desktop)));
    ::GetEnvironmentVariableW(L"USERPROFILE", record.userProfile,
                              static_cast<DWORD>(std::size(record.userProfile)));
    record.flags = startup.dwFlags;
    record.showWindow = startup.wShowWindow;
    record.argumentCount = static_cast<WORD>(argc);
    ::ProcessIdToSessionId(::GetCurrentProcessId(), &record.sessionId);
    const HANDLE console = ::CreateFileW(L"CONOUT$", GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                         OPEN_EXISTING, 0, nullptr);
    record.hasConsole = console != INVALID_HANDLE_VALUE;

    // Another one may be telling of its start at this moment: they share the writing.
    const HANDLE mailslot =
        ::CreateFileW(system_test::kLaunchMailslot, GENERIC_WRITE,
                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (mailslot == INVALID_HANDLE_VALUE)
        return 1;
    DWORD written = 0;
    const BOOL told = ::WriteFile(mailslot, &record, sizeof(record), &written, nullptr);
    ::CloseHandle(mailslot);
    return told ? 0 : 1;
}
