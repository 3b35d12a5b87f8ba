// The folders that the service writes to, as the registry or Windows defines them for its account.
// Each function throws Failure, whose text says why the fact cannot be determined.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

/// A text value in HKEY_LOCAL_MACHINE, with environment variables not expanded. Empty if there is
/// none. Null means the default value of the key.
std::optional<std::wstring> FindRegistryText(const std::wstring& key, const wchar_t* value);

/// The same for a REG_DWORD.
std::optional<std::uint32_t> FindRegistryNumber(const std::wstring& key, const wchar_t* value);

/// Replaces the environment variables in `text` by the values that they have for LocalSystem.
std::wstring ExpandForSystem(const std::wstring& text);

struct ServiceFolder {
    std::filesystem::path path;
    std::string origin;  // where the path comes from, unless it is where the registry says
};

/// The folder of the log. The log is created when the first record is written.
ServiceFolder ServiceLogFolder();

/// The folder of the dumps of the service itself.
std::filesystem::path ServiceDumpFolder();
