// What the system knows of the installed OrvikService. Each function throws orvik::Error, or
// another exception, whose text says why it is not known.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>

bool IsServiceInstalled();

/// In words; for a service that has ended, with the reason that the service control manager keeps.
std::string ServiceState();

/// Of its process; none if it is not running.
std::optional<DWORD> ServiceProcess();

std::string ServiceStartType();

/// Its executable file.
std::filesystem::path ServiceProgram();

/// The version in the resources of the executable file.
std::string ServiceVersion();

/// What the service control manager does when it crashes, one after the other.
struct RecoveryAction {
    std::string words;
    DWORD delay;  // in milliseconds
};
std::vector<RecoveryAction> ServiceRecovery();

/// Where its log is, if there is one.
std::filesystem::path ServiceLogFolder();

/// Where it writes the dumps of itself.
std::filesystem::path ServiceDumpFolder();

/// The newest of them.
struct Dump {
    std::filesystem::path name;
    FILETIME written;
};
std::optional<Dump> NewestDump(const std::filesystem::path& folder);
