// The setting up of the crash handler and the start of its reporter, with Windows' answers chosen
// by the test. Nothing crashes here.
#include "crash/win/crash.h"

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

#include "guarded_heap.h"
#include "import_hook.h"
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
}

namespace {

constexpr std::size_t kLongestText = 1200;

/// The answers of Windows while this lives, and what was asked. Those that aren't chosen are those
/// of a program, not a service, in C:\Programs\Service.exe, where every folder can be made.
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

    // What was asked.
    std::vector<std::wstring> folders;
    std::vector<std::wstring> services;
    DWORD managerAccess = 0;
    DWORD serviceAccess = 0;
    int openServiceHandles = 0;
    int localFolders = 0;       // texts that SHGetKnownFolderPath gave and nobody freed
    int filters = 0;            // installed handlers
    bool pipeWasTried = false;  // that of the crash server
    int starts = 0;
    std::array<wchar_t, kLongestText> application{};
    std::array<wchar_t, kLongestText> commandLine{};
    std::array<wchar_t, 64> desktop{};
    bool startsPlainly = false;  // all else of a start is as it has to be
    HANDLE process = nullptr;
    HANDLE thread = nullptr;

private:
    static inline SC_HANDLE const kManager = reinterpret_cast<SC_HANDLE>(&current);
    static inline SC_HANDLE const kService = reinterpret_cast<SC_HANDLE>(&current + 1);

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
        EXPECT_TRUE(::IsEqualGUID(id, GUID{0xF1B32785,
                                           0x6FBA,
                                           0x4FCF,
                                           {0x9D, 0x55, 0x7B, 0x8E, 0x7F, 0x15, 0x70, 0x91}}));
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
        ++current->filters;
        return current->setFilter.Original()(filter);
    }
    static HANDLE WINAPI CreateFile_(LPCWSTR path, DWORD access, DWORD share,
                                     LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                                     HANDLE like) {
        if (path == std::wstring(LR"(\\.\pipe\orvikcrashserver)")) {
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
        STARTUPINFOW expected{};
        expected.cb = 104;
        expected.lpDesktop = startup->lpDesktop;
        self.startsPlainly = processSecurity == nullptr && threadSecurity == nullptr && !inherit &&
                             flags == 8 && environment == nullptr && folder == nullptr &&
                             std::memcmp(&expected, startup, sizeof(expected)) == 0;
        if (self.startFails)
            return FALSE;
        information->hProcess = self.process = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        information->hThread = self.thread = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
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
    ImportHook<decltype(&::CreateFileW)> createFile{&__imp_CreateFileW, CreateFile_};
    ImportHook<decltype(&::CreateProcessW)> start{&__imp_CreateProcessW, Start};
};

/// The profile with the log, which stays open until the program ends.
class LogOfTheTest {
public:
    LogOfTheTest() { SkipAll(); }

    /// The lines since the last call, without times.
    std::vector<std::string> NewLines() {
        const std::string text = FileText(profile.Log());
        std::vector<std::string> lines;
        while (position < text.size()) {
            const std::size_t end = text.find('\n', position);
            const std::string line = text.substr(position, end - position);
            lines.push_back(line.substr(line.find(']') + 1));
            position = end + 1;
        }
        return lines;
    }

private:
    void SkipAll();
    const TemporaryProfile profile;
    std::size_t position = 0;
};

}  // namespace
