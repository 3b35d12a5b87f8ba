// Starts the desktop application when a camera wants it and nobody is connected.

#include <array>
#include <iostream>
#include <string>

#include <windows.h>

#include <userenv.h>
#include <wtsapi32.h>

#include "server/server.h"

namespace {

constexpr wchar_t kAppPathKey[] =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\App Paths\Orvik.exe)";
constexpr wchar_t kFallbackPath[] = LR"(c:\Program Files (x86)\Orvik\Orvik.exe)";

/// A string value below HKEY_LOCAL_MACHINE; empty on any failure, and for more than 1024 bytes.
std::wstring ReadAppPath(const wchar_t* keyPath, const wchar_t* valueName) {
    constexpr DWORD kLargestValue = 1024;  // bytes
    HKEY key = nullptr;
    if (::RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
        return {};
    std::array<wchar_t, 1024> buffer{};
    DWORD size = sizeof(buffer);
    const LSTATUS result = ::RegQueryValueExW(key, valueName, nullptr, nullptr,
                                              reinterpret_cast<BYTE*>(buffer.data()), &size);
    ::RegCloseKey(key);
    if (result != ERROR_SUCCESS || size > kLargestValue || size == 0)
        return {};
    // Kept on purpose: bytes minus one taken as characters. The text runs on past the value's end
    // into the buffer's zeros, which the next line drops again; Windows reads up to the first.
    std::wstring text(buffer.data(), size - 1);
    text.erase(text.find_last_not_of(L'\0') + 1);
    return text;
}

std::wstring ApplicationPath() {
    const std::wstring path = ReadAppPath(kAppPathKey, L"");  // the key's default value
    return path.empty() ? kFallbackPath : path;
}

}  // namespace

void Server::LaunchApplication() noexcept {
    HANDLE token = nullptr;
    if (!::WTSQueryUserToken(::WTSGetActiveConsoleSessionId(), &token)) {
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
    if (::CreateEnvironmentBlock(&environment, token, FALSE) == TRUE) {
        const std::wstring path = ApplicationPath();
        ::CreateProcessAsUserW(token, path.c_str(), nullptr, nullptr, nullptr, FALSE,
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
