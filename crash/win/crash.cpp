#include "crash/win/crash.h"

#include <array>
#include <cstdlib>
#include <cwchar>
#include <iterator>
#include <new>

#include <shlobj.h>

#include "log/log_system.h"
#include "protocol/message.h"
#include "windows/unique_memory.h"
#include "windows/unique_service_handle.h"

#if defined(__clang__) && !defined(_MSC_VER)
/// Called in place of a pure virtual function. That of the C++ library, which lld links, ends the
/// process in a way that no crash handler sees; this is a fault. GNU's linker leaves the library's
/// function out, so that the call is a fault anyway, and takes this one for a second definition.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the name is the compilers'
extern "C" [[noreturn]] void __cxa_pure_virtual() {
    __builtin_trap();
}
#endif

namespace {

/// The texts for the callback, and the handler. Set before there is a crash. Never destroyed: a
/// process can crash at its very end.
struct CrashSettings {
    std::wstring reporterPath;     // of crashreporter.exe; empty if it could not be formed
    std::wstring modeFlag = L"1";  // "0" as the installed service
    std::wstring applicationName;  // "OrvikService" as the installed service, else "Orvik"
    std::wstring versionText;
    std::wstring secondDescriptor;
    std::wstring dumpFolder;  // of dumps that this process writes itself
    MINIDUMP_TYPE dumpType = MiniDumpNormal;
    const wchar_t* serverPipe = nullptr;  // of the crash server that is asked first; null: none
    std::unique_ptr<google_breakpad::ExceptionHandler> handler;
};

CrashSettings& Settings() {
    static auto& settings = *new CrashSettings;
    return settings;
}

void LogError(const char* message) noexcept {
    LogPrintf(kLogError, "crash", R"(..\..\..\crash\win\crash)", __LINE__, "%s", message);
}

/// True also if it is there already.
bool MakeFolder(const std::wstring& folder) noexcept {
    return ::CreateDirectoryW(folder.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS;
}

/// Sets the path of the reporter beside this executable, and returns the executable's base name.
/// Empty on failure.
std::wstring PrepareReporterPath() {
    Settings().reporterPath.clear();
    std::array<wchar_t, MAX_PATH> program{};
    const DWORD length =
        ::GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size()));
    if (length == 0 || length == program.size()) {
        LogError("GetModuleFileName failed");
        return {};
    }
    std::array<wchar_t, _MAX_DRIVE> drive{};
    std::array<wchar_t, _MAX_DIR> folder{};
    std::array<wchar_t, _MAX_FNAME> baseName{};
    if (::_wsplitpath_s(program.data(), drive.data(), drive.size(), folder.data(), folder.size(),
                        baseName.data(), baseName.size(), nullptr, 0) != 0)
        return {};
    std::array<wchar_t, MAX_PATH> reporter{};
    if (::_snwprintf_s(reporter.data(), reporter.size(), _TRUNCATE, L"%ls%lscrashreporter.exe",
                       drive.data(), folder.data()) >= 0)
        Settings().reporterPath = reporter.data();
    return baseName.data();
}

void InstallHandler() {
    using google_breakpad::ExceptionHandler;
    CrashSettings& settings = Settings();
    // The old one goes first: it restores the handler that was there before it.
    settings.handler.reset();
    settings.handler = std::make_unique<ExceptionHandler>(
        settings.dumpFolder, nullptr, LaunchCrashReporter, nullptr, ExceptionHandler::HANDLER_ALL,
        settings.dumpType, settings.serverPipe, nullptr);
}

void Install(const std::wstring& dumpFolder, MINIDUMP_TYPE dumpType, const wchar_t* serverPipe) {
    CrashSettings& settings = Settings();
    settings.dumpFolder = dumpFolder;
    settings.dumpType = dumpType;
    settings.serverPipe = serverPipe;
    InstallHandler();
}

/// The dump is written by this process, into the temporary folder.
void SetUpAsService() {
    std::array<wchar_t, MAX_PATH> folder{};
    const DWORD length = ::GetTempPathW(static_cast<DWORD>(folder.size()), folder.data());
    if (length == 0 || length > folder.size()) {
        LogError("GetTempPath failed");
        return;
    }
    if (!MakeFolder(folder.data())) {
        LogError("CreateDirectoryW failed for temp directory");
        return;
    }
    Install(folder.data(), MiniDumpNormal, nullptr);
}

/// The dump is asked of the crash server.
void SetUpAsProgram() {
    wchar_t* local = nullptr;
    const HRESULT result = ::SHGetKnownFolderPath(FOLDERID_LocalAppData, 0, nullptr, &local);
    const std::unique_ptr<wchar_t, TaskMemoryFreer> owner(local);
    if (FAILED(result)) {
        LogError("SHGetKnownFolderPath failed getting Local folder");
        return;
    }
    std::wstring folder = local;
    for (const wchar_t* const part : {L"\\Orvik", L"\\Crash Reports"}) {
        folder += part;
        if (!MakeFolder(folder)) {
            LogError("CreateDirectoryW failed creating Orvik directory");
            return;
        }
    }
    constexpr auto kDumpType = static_cast<MINIDUMP_TYPE>(
        MiniDumpWithDataSegs | MiniDumpWithIndirectlyReferencedMemory | MiniDumpWithThreadInfo);
    static_assert(kDumpType == 0x1041);
    Install(folder, kDumpType, kCrashPipeName);
}

const wchar_t* TextOrNothing(const wchar_t* text) noexcept {
    return text != nullptr ? text : L"";
}

}  // namespace

std::unique_ptr<google_breakpad::CrashGenerationServer> StartCrashServer() {
    constexpr auto kIgnore = [](auto...) {};
    const std::wstring dumpFolder;  // empty: where the library puts dumps then
    auto server = std::make_unique<google_breakpad::CrashGenerationServer>(
        kCrashPipeName, nullptr, kIgnore, nullptr, kIgnore, nullptr, kIgnore, nullptr, nullptr,
        nullptr, true, &dumpFolder);
    static_cast<void>(server->Start());
    return server;
}

bool IsRunningAsService(const wchar_t* serviceName) noexcept {
    const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
        return false;
    const UniqueServiceHandle service(
        ::OpenServiceW(manager.get(), serviceName, SERVICE_ALL_ACCESS));
    if (!service)
        return false;
    SERVICE_STATUS_PROCESS status{};
    static_assert(sizeof(status) == 36);
    DWORD needed = 0;
    return ::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                  reinterpret_cast<BYTE*>(&status), sizeof(status), &needed) &&
           status.dwProcessId == ::GetCurrentProcessId();
}

void SetUpCrashHandler(const std::wstring& versionText, const std::wstring& secondDescriptor) {
    CrashSettings& settings = Settings();
    settings.versionText = versionText;
    settings.secondDescriptor = secondDescriptor;
    const std::wstring baseName = PrepareReporterPath();
    const bool asService = !baseName.empty() && IsRunningAsService(baseName.c_str());
    settings.applicationName = asService ? kServiceName : L"Orvik";
    settings.modeFlag = asService ? L"0" : L"1";
    if (asService)
        SetUpAsService();
    else
        SetUpAsProgram();
}

void RenewCrashHandler() noexcept {
    const CrashSettings& settings = Settings();
    if (!settings.handler || settings.serverPipe == nullptr)
        return;
    try {
        InstallHandler();
    } catch (const std::bad_alloc&) {
        // The process ends without a dump.
    }
}

bool LaunchCrashReporter(const wchar_t* dumpFolder, const wchar_t* minidumpId, void* /*context*/,
                         EXCEPTION_POINTERS* /*exception*/, MDRawAssertionInfo* /*assertion*/,
                         bool succeeded) {
    const CrashSettings& settings = Settings();
    if (settings.reporterPath.empty()) {
        LogError("No path to crashreporter");
        return false;
    }
    std::array<wchar_t, 1024> commandLine{};
    ::_snwprintf_s(commandLine.data(), commandLine.size(), _TRUNCATE,
                   LR"("%ls" |*|%ls|*|%ls\%ls.dmp|*|%ls|*|%ls|*|%ls|*|)",
                   settings.reporterPath.c_str(), settings.modeFlag.c_str(),
                   TextOrNothing(dumpFolder), TextOrNothing(minidumpId),
                   settings.applicationName.c_str(), settings.versionText.c_str(),
                   settings.secondDescriptor.c_str());

    wchar_t desktop[] = LR"(winsta0\default)";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.lpDesktop = desktop;
    PROCESS_INFORMATION process{};
    if (!::CreateProcessW(settings.reporterPath.c_str(), commandLine.data(), nullptr, nullptr,
                          FALSE, DETACHED_PROCESS, nullptr, nullptr, &startup, &process)) {
        LogError("CreateProcess failed");
        return false;
    }
    ::CloseHandle(process.hProcess);
    ::CloseHandle(process.hThread);
    return succeeded;
}
