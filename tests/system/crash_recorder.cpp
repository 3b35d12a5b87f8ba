// In place of the crash reporter: sends the test a record of how it was started, and ends.

#include "crash_record.h"

#include <iterator>

#include <shlobj.h>

#include "mailslot_message.h"

int main() {
    system_test::CrashRecord record{};
    record.processId = ::GetCurrentProcessId();
    ::lstrcpynW(record.commandLine, ::GetCommandLineW(),
                static_cast<int>(std::size(record.commandLine)));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    ::GetStartupInfoW(&startup);
    if (startup.lpDesktop != nullptr)
        ::lstrcpynW(record.desktop, startup.lpDesktop, static_cast<int>(std::size(record.desktop)));
    ::GetTempPathW(static_cast<DWORD>(std::size(record.temporaryFolder)), record.temporaryFolder);
    wchar_t* local = nullptr;
    if (SUCCEEDED(::SHGetKnownFolderPath(FOLDERID_LocalAppData, 0, nullptr, &local)))
        ::lstrcpynW(record.localFolder, local, static_cast<int>(std::size(record.localFolder)));
    ::CoTaskMemFree(local);
    record.hasConsole = system_test::HasConsole();
    return system_test::SendToMailslot(system_test::kCrashMailslot, record) ? 0 : 1;
}
