// Registered as the desktop application: sends the test a record of how it was started, and ends.

#include "launch_record.h"

#include <iterator>

#include "mailslot_message.h"

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
    record.hasConsole = system_test::HasConsole();
    return system_test::SendToMailslot(system_test::kLaunchMailslot, record) ? 0 : 1;
}
