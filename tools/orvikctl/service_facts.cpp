#include "service_facts.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <windows.h>

#include <sddl.h>
#include <shellapi.h>
#include <userenv.h>

#include "orvik/client.h"
#include "protocol/message.h"
#include "streams.h"
#include "windows/unique_handle.h"
#include "windows/unique_memory.h"
#include "windows/unique_service_handle.h"

namespace {

[[noreturn]] void FailLast(const std::string& text, DWORD code = ::GetLastError()) {
    throw orvik::Error(orvik::ErrorKind::kSystem, text, code);
}

/// Empty if it is not installed.
UniqueServiceHandle FindService(DWORD access) {
    const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager)
        FailLast("the service control manager does not answer");
    UniqueServiceHandle service(::OpenServiceW(manager.get(), kServiceName, access));
    if (!service && ::GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST)
        FailLast("the service control manager does not tell of the service");
    return service;
}

UniqueServiceHandle OpenInstalledService(DWORD access) {
    UniqueServiceHandle service = FindService(access);
    if (!service)
        throw orvik::Error(orvik::ErrorKind::kNotInstalled, "the service is not installed");
    return service;
}

SERVICE_STATUS_PROCESS Status() {
    const UniqueServiceHandle service = OpenInstalledService(SERVICE_QUERY_STATUS);
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
        FailLast("the service's state cannot be asked");
    return status;
}

/// A record of the service control manager, and behind it what it points to.
template <class Record>
struct WithTexts {
    std::unique_ptr<std::byte[]> memory;
    const Record* operator->() const { return reinterpret_cast<const Record*>(memory.get()); }
};

/// No such record is longer, says the documentation of those functions.
constexpr DWORD kRecordLimit = 8 * 1024;

WithTexts<QUERY_SERVICE_CONFIGW> Config() {
    const UniqueServiceHandle service = OpenInstalledService(SERVICE_QUERY_CONFIG);
    WithTexts<QUERY_SERVICE_CONFIGW> config{std::make_unique<std::byte[]>(kRecordLimit)};
    DWORD needed = 0;
    if (!::QueryServiceConfigW(service.get(),
                               reinterpret_cast<QUERY_SERVICE_CONFIGW*>(config.memory.get()),
                               kRecordLimit, &needed))
        FailLast("the service's settings cannot be asked");
    return config;
}

/// With the variables of the system in it replaced.
std::wstring Expanded(const std::wstring& text) {
    std::array<wchar_t, 4096> expanded{};
    if (!::ExpandEnvironmentStringsForUserW(nullptr, text.c_str(), expanded.data(),
                                            static_cast<DWORD>(expanded.size())))
        FailLast("cannot expand " + Utf8(text));
    return expanded.data();
}

/// The text of a value in the machine's part of the registry.
std::wstring RegistryText(const std::wstring& key, const wchar_t* value) {
    std::array<wchar_t, 1024> text{};
    DWORD size = sizeof(text);
    const LSTATUS code = ::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value,
                                        RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND,
                                        nullptr, text.data(), &size);
    if (code != ERROR_SUCCESS)
        FailLast("cannot read " + Utf8(key), static_cast<DWORD>(code));
    return text.data();
}

bool IsLocalSystem(const std::wstring& account) {
    return ::CompareStringOrdinal(account.c_str(), -1, L"LocalSystem", -1, TRUE) == CSTR_EQUAL;
}

/// The security identifier of an account, as a text.
std::wstring IdentifierOf(const std::wstring& account) {
    if (IsLocalSystem(account))
        return L"S-1-5-18";
    // ".\name" is an account of this machine.
    const std::wstring name = account.starts_with(L".\\") ? account.substr(2) : account;
    alignas(SID) std::array<std::byte, SECURITY_MAX_SID_SIZE> identifier{};
    std::array<wchar_t, 256> domain{};
    auto identifierSize = static_cast<DWORD>(identifier.size());
    auto domainSize = static_cast<DWORD>(domain.size());
    SID_NAME_USE use{};
    LPWSTR text = nullptr;
    if (!::LookupAccountNameW(nullptr, name.c_str(), identifier.data(), &identifierSize,
                              domain.data(), &domainSize, &use) ||
        !::ConvertSidToStringSidW(identifier.data(), &text))
        FailLast("the service's account " + Utf8(account) + " is not known");
    const std::unique_ptr<wchar_t, LocalFreer> owner(text);
    return text;
}

/// The folder that USERPROFILE names for the service.
std::filesystem::path ProfileFolder() {
    const std::wstring account = Config()->lpServiceStartName;
    return Expanded(RegistryText(
        LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\)" + IdentifierOf(account),
        L"ProfileImagePath"));
}

std::string Words(DWORD state) {
    switch (state) {
        case SERVICE_STOPPED:
            return "stopped";
        case SERVICE_START_PENDING:
            return "starting";
        case SERVICE_STOP_PENDING:
            return "stopping";
        case SERVICE_RUNNING:
            return "running";
        case SERVICE_CONTINUE_PENDING:
        case SERVICE_PAUSE_PENDING:
        case SERVICE_PAUSED:
            return "paused";
    }
    return "state " + std::to_string(state);
}

std::string Words(SC_ACTION_TYPE action) {
    switch (action) {
        case SC_ACTION_NONE:
            return "none";
        case SC_ACTION_RESTART:
            return "restart";
        case SC_ACTION_REBOOT:
            return "reboot";
        case SC_ACTION_RUN_COMMAND:
            return "run a command";
        default:
            return "action " + std::to_string(action);
    }
}

bool IsFile(const std::filesystem::path& path) {
    std::error_code error;
    return path.is_absolute() && std::filesystem::is_regular_file(path, error);
}

/// The program of a command line without quotes, in which a path may have spaces: as Windows finds
/// it, the first words that are the name of a file.
std::filesystem::path UnquotedProgram(const std::wstring& commandLine) {
    std::size_t end = 0;
    do {
        end = commandLine.find_first_of(L" \t", end + 1);
        std::filesystem::path words = commandLine.substr(0, end);
        if (IsFile(words))
            return words;
        if (!words.has_extension() && IsFile(words += L".exe"))
            return words;
    } while (end != std::wstring::npos);
    FailLast("no program is found in " + Utf8(commandLine), ERROR_FILE_NOT_FOUND);
}

/// The service names its dumps with identifiers: 36 characters, and ".dmp".
bool IsDumpName(const std::wstring& name) {
    return name.size() == 40 && name[8] == L'-' && name[13] == L'-' && name[18] == L'-' &&
           name[23] == L'-';
}

}  // namespace

bool IsServiceInstalled() {
    return FindService(SERVICE_QUERY_STATUS) != nullptr;
}

std::string ServiceState() {
    const SERVICE_STATUS_PROCESS status = Status();
    const std::string words = Words(status.dwCurrentState);
    if (status.dwWin32ExitCode == ERROR_SERVICE_SPECIFIC_ERROR)
        return words + ", with the service's own code " +
               std::to_string(status.dwServiceSpecificExitCode);
    return orvik::Error(orvik::ErrorKind::kStopped, words, status.dwWin32ExitCode).what();
}

std::optional<DWORD> ServiceProcess() {
    const DWORD id = Status().dwProcessId;
    return id == 0 ? std::nullopt : std::optional(id);
}

std::string ServiceStartType() {
    const DWORD type = Config()->dwStartType;
    switch (type) {
        case SERVICE_AUTO_START:
            return "automatic";
        case SERVICE_DEMAND_START:
            return "manual";
        case SERVICE_DISABLED:
            return "disabled";
        default:
            return "type " + std::to_string(type);
    }
}

std::filesystem::path ServiceProgram() {
    const std::wstring commandLine = Expanded(Config()->lpBinaryPathName);
    if (!commandLine.starts_with(L'"'))
        return UnquotedProgram(commandLine);
    int count = 0;
    const std::unique_ptr<LPWSTR, LocalFreer> words(
        ::CommandLineToArgvW(commandLine.c_str(), &count));
    if (!words || count == 0)
        FailLast("the service's command line makes no sense");
    return words.get()[0];
}

std::string ServiceVersion() {
    const std::wstring path = ServiceProgram().wstring();
    std::vector<std::byte> resource(::GetFileVersionInfoSizeW(path.c_str(), nullptr));
    VS_FIXEDFILEINFO* version = nullptr;
    UINT size = 0;
    if (resource.empty() ||
        !::GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(resource.size()),
                               resource.data()) ||
        !::VerQueryValueW(resource.data(), L"\\", reinterpret_cast<void**>(&version), &size))
        FailLast("the version of " + Utf8(path) + " cannot be read");
    return std::to_string(HIWORD(version->dwFileVersionMS)) + "." +
           std::to_string(LOWORD(version->dwFileVersionMS)) + "." +
           std::to_string(HIWORD(version->dwFileVersionLS));
}

std::vector<RecoveryAction> ServiceRecovery() {
    const UniqueServiceHandle service = OpenInstalledService(SERVICE_QUERY_CONFIG);
    const WithTexts<SERVICE_FAILURE_ACTIONSW> config{std::make_unique<std::byte[]>(kRecordLimit)};
    DWORD needed = 0;
    if (!::QueryServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS,
                                reinterpret_cast<BYTE*>(config.memory.get()), kRecordLimit,
                                &needed))
        FailLast("the service's recovery actions cannot be asked");
    std::vector<RecoveryAction> actions;
    for (DWORD i = 0; i < config->cActions; ++i)
        actions.push_back({Words(config->lpsaActions[i].Type), config->lpsaActions[i].Delay});
    return actions;
}

std::filesystem::path ServiceLogFolder() {
    return ProfileFolder() / L"AppData" / L"Local" / L"Orvik";
}

std::filesystem::path ServiceDumpFolder() {
    const std::wstring account = Config()->lpServiceStartName;
    if (!IsLocalSystem(account))
        throw std::runtime_error("only the account " + Utf8(account) +
                                 " knows its temporary folder");
    const std::wstring name = ServiceProgram().stem().wstring();
    if (::CompareStringOrdinal(name.c_str(), -1, kServiceName, -1, TRUE) != CSTR_EQUAL)
        throw std::runtime_error("the service's program is named " + Utf8(name) +
                                 ", so its crash server writes them where it is");
    ProfileFolder();  // where LocalSystem has none, its variables are not those of the system
    return Expanded(
        RegistryText(LR"(SYSTEM\CurrentControlSet\Control\Session Manager\Environment)", L"TMP"));
}

std::optional<Dump> NewestDump(const std::filesystem::path& folder) {
    WIN32_FIND_DATAW entry{};
    const UniqueSearch search = OwnSearch(::FindFirstFileW((folder / L"*.dmp").c_str(), &entry));
    if (!search && ::GetLastError() != ERROR_FILE_NOT_FOUND)
        FailLast("the dump folder cannot be read");
    std::optional<Dump> newest;
    for (BOOL more = search != nullptr; more; more = ::FindNextFileW(search.get(), &entry)) {
        if (IsDumpName(entry.cFileName) &&
            (!newest || ::CompareFileTime(&newest->written, &entry.ftLastWriteTime) < 0))
            newest = {entry.cFileName, entry.ftLastWriteTime};
    }
    return newest;
}
