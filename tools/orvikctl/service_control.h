// What the service control manager knows about the installed OrvikService. Each function throws
// Failure, whose text says why the fact cannot be determined.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <windows.h>

#include "recovery_actions.h"
#include "windows/unique_service_handle.h"

bool IsServiceInstalled();

UniqueServiceHandle OpenInstalledService(DWORD access);

/// In words. For a service that has ended, with the cause that the service control manager keeps.
std::string ServiceState();

/// The id of its process. Empty if it is not running.
std::optional<DWORD> ServiceProcess();

std::wstring ServiceDisplayName();
std::string ServiceStartType();

/// Its command line, with environment variables not expanded.
std::wstring ServiceCommandLine();

/// The name of the account that it runs as.
std::wstring ServiceAccount();

std::vector<RecoveryAction> ServiceRecovery();
