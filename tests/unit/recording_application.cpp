// Registered as the desktop application: sends the test a record of its start through a pipe, waits
// until the test has read it, and ends.

#include <string>

#include <windows.h>

#include "recording_application.h"

namespace {

std::wstring Variable(const wchar_t* name) {
    wchar_t value[1024] = L"";
    return ::GetEnvironmentVariableW(name, value, 1024) != 0 ? value : L"(none)";
}

}  // namespace

int wmain() {
    wchar_t module[1024] = L"";
    ::GetModuleFileNameW(nullptr, module, 1024);
    wchar_t folder[1024] = L"";
    ::GetCurrentDirectoryW(1024, folder);
    STARTUPINFOW startup{};
    ::GetStartupInfoW(&startup);

    std::wstring record;
    const auto add = [&record](const std::wstring& text) { record.append(text).append(1, L'\n'); };
    add(module);
    add(::GetCommandLineW());
    add(startup.lpDesktop != nullptr ? startup.lpDesktop : L"");
    add(std::to_wstring(startup.dwFlags));
    add(std::to_wstring(startup.wShowWindow));
    add(Variable(recording::kUserVariable));
    add(Variable(recording::kServiceVariable));
    add(::GetConsoleWindow() != nullptr ? L"console" : L"no console");

    if (!::WaitNamedPipeW(recording::kPipeName, 20000))
        return 1;
    const HANDLE pipe = ::CreateFileW(recording::kPipeName, GENERIC_READ | GENERIC_WRITE, 0,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    DWORD count = 0;
    ::WriteFile(pipe, record.data(), static_cast<DWORD>(record.size() * sizeof(wchar_t)), &count,
                nullptr);
    char received = 0;
    ::ReadFile(pipe, &received, 1, &count, nullptr);
    return 0;
}
