// A DLL that must not be loaded: it leaves a file beside itself when it is.

#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, void* /*reserved*/) {
    constexpr wchar_t kEnd[] = L".loaded";
    wchar_t path[MAX_PATH + sizeof(kEnd)] = {};
    if (reason != DLL_PROCESS_ATTACH || ::GetModuleFileNameW(module, path, MAX_PATH) == 0)
        return TRUE;
    ::lstrcatW(path, kEnd);
    ::CloseHandle(::CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    return TRUE;
}
