#include "service_folders.h"

#include <array>
#include <cstddef>
#include <memory>

#include <windows.h>

#include <sddl.h>
#include <userenv.h>

#include "exit_code.h"
#include "protocol/message.h"
#include "service_control.h"
#include "service_program.h"
#include "windows/system_dll.h"
#include "windows/unique_memory.h"
#include "windows/utf.h"

namespace {

bool EqualIgnoringCase(const std::wstring& text, const wchar_t* other) {
    return ::CompareStringOrdinal(text.c_str(), -1, other, -1, TRUE) == CSTR_EQUAL;
}

std::string NameOfValue(const std::wstring& key, const wchar_t* value) {
    return "HKLM\\" + ToUtf8(key) + "\\" + (value != nullptr ? ToUtf8(value) : "(default)");
}

/// Reads a value in HKEY_LOCAL_MACHINE. `size` is in bytes. False if there is none.
bool ReadValue(const std::wstring& key, const wchar_t* value, DWORD flags, void* to, DWORD size) {
    const LSTATUS code =
        ::RegGetValueW(HKEY_LOCAL_MACHINE, key.c_str(), value, flags, nullptr, to, &size);
    if (code != ERROR_SUCCESS && code != ERROR_FILE_NOT_FOUND)
        throw SystemFailure("cannot read the registry value " + NameOfValue(key, value),
                            static_cast<DWORD>(code));
    return code == ERROR_SUCCESS;
}

/// The name without the ".\" that an account of this machine may have in front of it.
std::wstring NameOf(const std::wstring& account) {
    return account.starts_with(L".\\") ? account.substr(2) : account;
}

bool IsLocalSystem(const std::wstring& account) {
    return EqualIgnoringCase(NameOf(account), L"LocalSystem");
}

/// The security identifier of an account, as a text.
std::wstring IdentifierOf(const std::wstring& account) {
    if (IsLocalSystem(account))
        return L"S-1-5-18";
    const std::wstring name = NameOf(account);
    alignas(SID) std::array<std::byte, SECURITY_MAX_SID_SIZE> identifier{};
    std::array<wchar_t, 256> domain{};
    auto identifierSize = static_cast<DWORD>(identifier.size());
    auto domainSize = static_cast<DWORD>(domain.size());
    SID_NAME_USE use{};
    LPWSTR text = nullptr;
    if (!::LookupAccountNameW(nullptr, name.c_str(), identifier.data(), &identifierSize,
                              domain.data(), &domainSize, &use) ||
        !::ConvertSidToStringSidW(identifier.data(), &text))
        throw SystemFailure("cannot look up the service's account " + ToUtf8(account));
    const std::unique_ptr<wchar_t, LocalFreer> owner(text);
    return text;
}

/// The profile that Windows defines for an account of its own. Null for any other account.
const wchar_t* DefaultProfile(const std::wstring& identifier) {
    if (identifier == L"S-1-5-18")
        return LR"(%SystemRoot%\System32\config\systemprofile)";
    if (identifier == L"S-1-5-19")
        return LR"(%SystemRoot%\ServiceProfiles\LocalService)";
    if (identifier == L"S-1-5-20")
        return LR"(%SystemRoot%\ServiceProfiles\NetworkService)";
    return nullptr;
}

/// The folder that USERPROFILE names for the service.
ServiceFolder ProfileFolder() {
    const std::wstring identifier = IdentifierOf(ServiceAccount());
    const std::wstring key =
        LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\)" + identifier;
    constexpr wchar_t kValue[] = L"ProfileImagePath";
    if (const auto profile = FindRegistryText(key, kValue))
        return {ExpandForSystem(*profile), {}};
    const std::string none = "there is no registry value " + NameOfValue(key, kValue);
    const wchar_t* const byDefault = DefaultProfile(identifier);
    if (byDefault == nullptr)
        throw Failure(ExitCode::kFailure, none);
    return {ExpandForSystem(byDefault), "Windows' default for the account, because " + none};
}

}  // namespace

std::optional<std::wstring> FindRegistryText(const std::wstring& key, const wchar_t* value) {
    std::array<wchar_t, 1024> text{};
    if (!ReadValue(key, value, RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND, text.data(),
                   sizeof(text)))
        return std::nullopt;
    return text.data();
}

std::optional<std::uint32_t> FindRegistryNumber(const std::wstring& key, const wchar_t* value) {
    std::uint32_t number = 0;
    if (!ReadValue(key, value, RRF_RT_REG_DWORD, &number, sizeof(number)))
        return std::nullopt;
    return number;
}

std::wstring ExpandForSystem(const std::wstring& text) {
    const auto expand = SystemFunction<decltype(&::ExpandEnvironmentStringsForUserW)>(
        L"userenv.dll", "ExpandEnvironmentStringsForUserW");
    std::array<wchar_t, 4096> expanded{};
    if (expand == nullptr ||
        !expand(nullptr, text.c_str(), expanded.data(), static_cast<DWORD>(expanded.size())))
        throw SystemFailure("cannot expand the environment variables in " + ToUtf8(text));
    return expanded.data();
}

ServiceFolder ServiceLogFolder() {
    ServiceFolder folder = ProfileFolder();
    folder.path = folder.path / L"AppData" / L"Local" / L"Orvik";
    return folder;
}

std::filesystem::path ServiceDumpFolder() {
    const std::wstring account = ServiceAccount();
    if (!IsLocalSystem(account))
        throw Failure(ExitCode::kFailure, "the service runs as " + ToUtf8(account) +
                                              ", and only processes of that account know its "
                                              "temporary folder");
    const std::wstring name = ServiceProgram().stem().wstring();
    if (!EqualIgnoringCase(name, kServiceName))
        throw Failure(ExitCode::kFailure,
                      "the service's program is named " + ToUtf8(name) + " instead of " +
                          ToUtf8(kServiceName) +
                          ", so a crash server writes the dumps, to the root of its current drive");
    const std::wstring key = LR"(SYSTEM\CurrentControlSet\Control\Session Manager\Environment)";
    constexpr wchar_t kValue[] = L"TMP";
    const auto folder = FindRegistryText(key, kValue);
    if (!folder)
        throw Failure(ExitCode::kFailure, "there is no registry value " + NameOfValue(key, kValue));
    return ExpandForSystem(*folder);
}
