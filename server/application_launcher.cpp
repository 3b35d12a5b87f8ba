// Starts the desktop application when a camera arrives and no main communicator is connected.

#include <algorithm>
#include <array>
#include <iostream>

#include <windows.h>

#include "server/launch_functions.h"
#include "server/server.h"
#include "windows/unique_registry_key.h"

namespace {

constexpr wchar_t kAppPathKey[] =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\App Paths\Orvik.exe)";
constexpr wchar_t kFallbackPath[] = LR"(c:\Program Files (x86)\Orvik\Orvik.exe)";

/// A path in a fixed buffer: a launch makes no C++ allocation that could throw.
using Path = std::array<wchar_t, 1024>;

/// Reads a string value below HKEY_LOCAL_MACHINE into `path`, which must be all zeros. False on any
/// failure, for an empty value and for one of more than 1024 bytes.
bool ReadAppPath(const wchar_t* keyPath, const wchar_t* valueName, Path& path) noexcept {
    constexpr DWORD kLargestValue = 1024;  // bytes
    HKEY opened = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath, 0, KEY_QUERY_VALUE, &opened) != ERROR_SUCCESS)
        return false;
    const UniqueRegistryKey key(opened);
    DWORD size = sizeof(path);
    const LSTATUS result = ::RegQueryValueExW(key.get(), valueName, nullptr, nullptr,
                                              reinterpret_cast<BYTE*>(path.data()), &size);
    if (result != ERROR_SUCCESS || size > kLargestValue || size == 0)
        return false;
    // Kept on purpose: bytes minus one taken as characters. They run past the value's end into the
    // buffer's zeros. A value is empty if there is nothing but zeros; Windows reads up to the
    // first.
    return std::any_of(path.begin(), path.begin() + (size - 1),
                       [](wchar_t character) { return character != L'\0'; });
}

}  // namespace

void Server::LaunchApplication() noexcept {
    HANDLE token = nullptr;
    if (!queryUserToken(::WTSGetActiveConsoleSessionId(), &token)) {
        std::cerr << "Failed to get user token to launch application.\n";
        return;
    }
    std::cout << "Launching application..." << std::endl;

    wchar_t desktop[] = LR"(winsta0\default)";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.lpDesktop = desktop;
    startup.dwFlags = STARTF_USESHOWWINDOW | STARTF_FORCEONFEEDBACK;
    startup.wShowWindow = SW_SHOWNORMAL;
    PROCESS_INFORMATION process{};

    // The block is never destroyed: one per launch stays allocated, on purpose.
    void* environment = nullptr;
    const bool hasEnvironment = createEnvironmentBlock(&environment, token, FALSE) == TRUE;
    Path registered{};
    const wchar_t* const path =
        ReadAppPath(kAppPathKey, L"", registered) ? registered.data() : kFallbackPath;
    if (hasEnvironment) {
        ::CreateProcessAsUserW(token, path, nullptr, nullptr, nullptr, FALSE,
                               CREATE_UNICODE_ENVIRONMENT | DETACHED_PROCESS, environment, nullptr,
                               &startup, &process);
    } else {
        std::cerr << "Failed to get User Environment for App launch.\n";
    }
    // The process and thread handles are null when nothing was started, which closing ignores.
    ::CloseHandle(token);
    ::CloseHandle(process.hProcess);
    ::CloseHandle(process.hThread);
}

void Server::LaunchIfNoMainCommunicator() noexcept {
    // No copy, as GetMainCommunicator() makes one: if the dispatcher thread removed the client
    // meanwhile, this thread would destroy it.
    if (!mainCommunicator)
        LaunchApplication();
}
