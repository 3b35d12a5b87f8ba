// Stands in for the crash reporter: tells the test how it was started, and ends.

#include "crash_record.h"

#include <iterator>

#include <shlobj.h>

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
    const HANDLE console = ::CreateFileW(L"CONOUT$", GENERIC_WRITE, FILE_SHARE_WRITE, nullptr,
                                         OPEN_EXISTING, 0, nullptr);
    record.hasConsole = console != INVALID_HANDLE_VALUE;

    // Another one may be telling of its start at this moment: they share the writing.
    const HANDLE mailslot =
        ::CreateFileW(system_test::kCrashMailslot, GENERIC_WRITE,
                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    if (mailslot == INVALID_HANDLE_VALUE)
        return 1;
    DWORD written = 0;
    const BOOL told = ::WriteFile(mailslot, &record, sizeof(record), &written, nullptr);
    ::CloseHandle(mailslot);
    return told ? 0 : 1;
}
