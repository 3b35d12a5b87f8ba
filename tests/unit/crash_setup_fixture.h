#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cwchar>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <shlobj.h>

#include "crash/win/crash.h"
#include "import_hook.h"
#include "log/log_system.h"
#include "protocol/message.h"
#include "temporary_profile.h"

extern "C" {
extern decltype(&::CloseServiceHandle) __imp_CloseServiceHandle;
extern decltype(&::CoTaskMemFree) __imp_CoTaskMemFree;
extern decltype(&::CreateDirectoryW) __imp_CreateDirectoryW;
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::CreateProcessW) __imp_CreateProcessW;
extern decltype(&::GetModuleFileNameW) __imp_GetModuleFileNameW;
extern decltype(&::GetTempPathW) __imp_GetTempPathW;
extern decltype(&::OpenSCManagerW) __imp_OpenSCManagerW;
extern decltype(&::OpenServiceW) __imp_OpenServiceW;
extern decltype(&::QueryServiceStatusEx) __imp_QueryServiceStatusEx;
extern decltype(&::SetUnhandledExceptionFilter) __imp_SetUnhandledExceptionFilter;
extern decltype(&::SHGetKnownFolderPath) __imp_SHGetKnownFolderPath;
extern decltype(&::TerminateThread) __imp_TerminateThread;
}

inline constexpr std::size_t kLongestText = 1200;

/// Whether the start of a new process sets its desktop and nothing else.
inline bool SaysOnlyTheDesktop(const STARTUPINFOW& startup) {
    return startup.cb == 104 && startup.lpReserved == nullptr && startup.lpTitle == nullptr &&
           startup.dwX == 0 && startup.dwY == 0 && startup.dwXSize == 0 && startup.dwYSize == 0 &&
           startup.dwXCountChars == 0 && startup.dwYCountChars == 0 &&
           startup.dwFillAttribute == 0 && startup.dwFlags == 0 && startup.wShowWindow == 0 &&
           startup.cbReserved2 == 0 && startup.lpReserved2 == nullptr &&
           startup.hStdInput == nullptr && startup.hStdOutput == nullptr &&
           startup.hStdError == nullptr;
}

/// Answers for Windows while this lives, and keeps the calls. A test changes the answers that it
/// needs; the others are those for a program, not a service, in C:\Programs\Service.exe, where
/// every folder can be made.
class FakeWindows {
public:
    FakeWindows() { current = this; }
    ~FakeWindows() { current = nullptr; }

    FakeWindows(const FakeWindows&) = delete;
    FakeWindows& operator=(const FakeWindows&) = delete;

    /// Makes this process the service that its executable is named after.
    void RunAsService() { serviceProcess = ::GetCurrentProcessId(); }

    // Answers.
    std::wstring program = LR"(C:\Programs\Service.exe)";  // too long for the buffer: cut
    bool programFails = false;
    bool managerFails = false;
    bool serviceFails = false;
    bool queryFails = false;
    DWORD serviceProcess = 4;
    std::wstring temporaryFolder = LR"(C:\Temporary\)";
    DWORD temporaryLength = MAXDWORD;  // another result of GetTempPathW
    HRESULT localResult = S_OK;
    std::wstring failingFolder;  // CreateDirectoryW fails for it
    DWORD folderError = ERROR_ACCESS_DENIED;
    bool startFails = false;

    // The calls.
    std::vector<std::wstring> folders;
    std::vector<std::wstring> services;
    DWORD managerAccess = 0;
    DWORD serviceAccess = 0;
    int openServiceHandles = 0;
    int localFolders = 0;  // texts that SHGetKnownFolderPath gave and that were not freed
    std::vector<LPTOP_LEVEL_EXCEPTION_FILTER> filters;  // in the order of their installation
    bool pipeWasTried = false;                          // that of the crash server
    int terminatedThreads = 0;
    int starts = 0;
    std::array<wchar_t, kLongestText> application{};
    std::array<wchar_t, kLongestText> commandLine{};
    std::array<wchar_t, 64> desktop{};
    bool startsPlainly = false;  // all else of a start is as it has to be
    HANDLE process = nullptr;
    HANDLE thread = nullptr;

private:
    static inline std::array<int, 2> handles{};
    static inline SC_HANDLE const kManager = reinterpret_cast<SC_HANDLE>(&handles[0]);
    static inline SC_HANDLE const kService = reinterpret_cast<SC_HANDLE>(&handles[1]);

    static DWORD WINAPI ModuleFileName(HMODULE module, LPWSTR to, DWORD size) {
        EXPECT_EQ(module, nullptr);
        EXPECT_EQ(size, 260U);
        if (current->programFails)
            return 0;
        const std::wstring& text = current->program;
        const std::size_t length = std::min<std::size_t>(text.size(), size - 1);
        text.copy(to, length);
        to[length] = L'\0';
        return text.size() < size ? static_cast<DWORD>(length) : size;
    }
    static SC_HANDLE WINAPI OpenManager(LPCWSTR machine, LPCWSTR database, DWORD access) {
        EXPECT_EQ(machine, nullptr);
        EXPECT_EQ(database, nullptr);
        current->managerAccess = access;
        if (current->managerFails)
            return nullptr;
        ++current->openServiceHandles;
        return kManager;
    }
    static SC_HANDLE WINAPI Open(SC_HANDLE manager, LPCWSTR name, DWORD access) {
        EXPECT_EQ(manager, kManager);
        current->services.emplace_back(name);
        current->serviceAccess = access;
        if (current->serviceFails)
            return nullptr;
        ++current->openServiceHandles;
        return kService;
    }
    static BOOL WINAPI Query(SC_HANDLE service, SC_STATUS_TYPE type, LPBYTE to, DWORD size,
                             LPDWORD needed) {
        EXPECT_EQ(service, kService);
        EXPECT_EQ(type, SC_STATUS_PROCESS_INFO);
        EXPECT_EQ(size, 36U);
        *needed = size;
        // Also where it fails.
        reinterpret_cast<SERVICE_STATUS_PROCESS*>(to)->dwProcessId = current->serviceProcess;
        return current->queryFails ? FALSE : TRUE;
    }
    static BOOL WINAPI CloseService(SC_HANDLE) {
        --current->openServiceHandles;
        return TRUE;
    }
    static DWORD WINAPI TemporaryPath(DWORD size, LPWSTR to) {
        EXPECT_EQ(size, 260U);
        if (current->temporaryLength != MAXDWORD)
            return current->temporaryLength;
        std::wcscpy(to, current->temporaryFolder.c_str());
        return static_cast<DWORD>(current->temporaryFolder.size());
    }
    static BOOL WINAPI MakeFolder(LPCWSTR path, LPSECURITY_ATTRIBUTES attributes) {
        EXPECT_EQ(attributes, nullptr);
        current->folders.emplace_back(path);
        if (current->failingFolder != path)
            return TRUE;
        ::SetLastError(current->folderError);
        return FALSE;
    }
    static HRESULT WINAPI KnownFolder(REFKNOWNFOLDERID id, DWORD flags, HANDLE token, PWSTR* to) {
        EXPECT_TRUE(::IsEqualGUID(
            id,
            GUID{0xF1B32785, 0x6FBA, 0x4FCF, {0x9D, 0x55, 0x7B, 0x8E, 0x7F, 0x15, 0x70, 0x91}}));
        EXPECT_EQ(flags, 0U);
        EXPECT_EQ(token, nullptr);
        constexpr wchar_t kLocal[] = LR"(C:\Local)";
        *to = static_cast<wchar_t*>(::CoTaskMemAlloc(sizeof(kLocal)));
        std::wcscpy(*to, kLocal);
        ++current->localFolders;
        return current->localResult;
    }
    static void WINAPI Free(LPVOID text) {
        --current->localFolders;
        current->freeText.Original()(text);
    }
    static LPTOP_LEVEL_EXCEPTION_FILTER WINAPI SetFilter(LPTOP_LEVEL_EXCEPTION_FILTER filter) {
        current->filters.push_back(filter);
        return current->setFilter.Original()(filter);
    }
    static BOOL WINAPI Terminate(HANDLE thread, DWORD exitCode) {
        ++current->terminatedThreads;
        return current->terminateThread.Original()(thread, exitCode);
    }
    static HANDLE WINAPI OpenFile(LPCWSTR path, DWORD access, DWORD share,
                                  LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                                  HANDLE like) {
        if (path == std::wstring(kCrashPipeName)) {
            current->pipeWasTried = true;
            ::SetLastError(ERROR_FILE_NOT_FOUND);
            return INVALID_HANDLE_VALUE;
        }
        return current->createFile.Original()(path, access, share, security, disposition, flags,
                                              like);
    }
    /// Allocates nothing, as the test of that wants.
    static BOOL WINAPI Start(LPCWSTR application, LPWSTR commandLine,
                             LPSECURITY_ATTRIBUTES processSecurity,
                             LPSECURITY_ATTRIBUTES threadSecurity, BOOL inherit, DWORD flags,
                             LPVOID environment, LPCWSTR folder, LPSTARTUPINFOW startup,
                             LPPROCESS_INFORMATION information) {
        FakeWindows& self = *current;
        ++self.starts;
        std::wcsncpy(self.application.data(), application, kLongestText - 1);
        std::wcsncpy(self.commandLine.data(), commandLine, kLongestText - 1);
        std::wcsncpy(self.desktop.data(), startup->lpDesktop, self.desktop.size() - 1);
        self.startsPlainly = processSecurity == nullptr && threadSecurity == nullptr && !inherit &&
                             flags == 8 && environment == nullptr && folder == nullptr &&
                             SaysOnlyTheDesktop(*startup);
        if (self.startFails)
            return FALSE;
        information->hProcess = self.process = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        information->hThread = self.thread = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        information->dwProcessId = 4;
        information->dwThreadId = 8;
        return TRUE;
    }

    static inline FakeWindows* current = nullptr;
    ImportHook<decltype(&::GetModuleFileNameW)> moduleFileName{&__imp_GetModuleFileNameW,
                                                               ModuleFileName};
    ImportHook<decltype(&::OpenSCManagerW)> openManager{&__imp_OpenSCManagerW, OpenManager};
    ImportHook<decltype(&::OpenServiceW)> openService{&__imp_OpenServiceW, Open};
    ImportHook<decltype(&::QueryServiceStatusEx)> query{&__imp_QueryServiceStatusEx, Query};
    ImportHook<decltype(&::CloseServiceHandle)> closeService{&__imp_CloseServiceHandle,
                                                             CloseService};
    ImportHook<decltype(&::GetTempPathW)> temporaryPath{&__imp_GetTempPathW, TemporaryPath};
    ImportHook<decltype(&::CreateDirectoryW)> makeFolder{&__imp_CreateDirectoryW, MakeFolder};
    ImportHook<decltype(&::SHGetKnownFolderPath)> knownFolder{&__imp_SHGetKnownFolderPath,
                                                              KnownFolder};
    ImportHook<decltype(&::CoTaskMemFree)> freeText{&__imp_CoTaskMemFree, Free};
    ImportHook<decltype(&::SetUnhandledExceptionFilter)> setFilter{
        &__imp_SetUnhandledExceptionFilter, SetFilter};
    ImportHook<decltype(&::TerminateThread)> terminateThread{&__imp_TerminateThread, Terminate};
    ImportHook<decltype(&::CreateFileW)> createFile{&__imp_CreateFileW, OpenFile};
    ImportHook<decltype(&::CreateProcessW)> start{&__imp_CreateProcessW, Start};
};

using Lines = std::vector<std::string>;
using Folders = std::vector<std::wstring>;

class CrashSetupTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        // The log of this process stays open until its end, so its profile can't go before.
        static const TemporaryProfile profile;
        logPath = profile.Log();
        // Opens it, before Windows is replaced.
        LogPrintf(kLogError, "test", "", 0, "%s", "start");
        logPosition = FileText(logPath).size();
        ASSERT_NE(logPosition, 0U);
    }

    /// What has been logged since the last call: records without times.
    static Lines Logged() {
        const std::string text = FileText(logPath);
        Lines lines;
        while (logPosition < text.size()) {
            const std::size_t end = text.find('\n', logPosition);
            const std::string line = text.substr(logPosition, end - logPosition);
            lines.push_back(line.substr(line.find(']') + 1));
            logPosition = end + 1;
        }
        return lines;
    }

    /// Sets up with what `fake` says: the lines that are logged.
    static Lines SetUpWith(const FakeWindows&) {
        SetUpCrashHandler(L"4.0.4 (unknown)", L"Unknown");
        return Logged();
    }

    /// Expects that the setting up logs just this, and installs nothing.
    void ExpectFailure(const std::string& message) {
        EXPECT_EQ(SetUpWith(fake), Lines({"[ERROR][crash]:\t" + message}));
        EXPECT_TRUE(fake.filters.empty());
        EXPECT_EQ(fake.localFolders, 0);
    }

    static bool Launch(bool succeeded = true) {
        return LaunchCrashReporter(LR"(C:\dumps)", L"id", nullptr, nullptr, nullptr, succeeded);
    }

    static inline std::filesystem::path logPath;
    static inline std::size_t logPosition = 0;
    FakeWindows fake;
};
