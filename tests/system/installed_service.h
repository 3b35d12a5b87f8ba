// The tests' own OrvikService of the service control manager. On Windows the tests need
// administrator rights, because they make a service. All calls throw std::system_error or
// std::runtime_error.
#pragma once

#include <memory>
#include <string>

#include <windows.h>

#include "protocol/message.h"

namespace system_test {

/// Waits for the service to report one of some states, given as a mask of SERVICE_NOTIFY_...; one
/// that it is in at construction counts. Throws std::system_error and std::runtime_error.
/// Thread: the one that made it.
class StateNotification {
public:
    explicit StateNotification(DWORD notifyMask);
    ~StateNotification();

    StateNotification(const StateNotification&) = delete;
    StateNotification& operator=(const StateNotification&) = delete;

    /// The status with that state.
    SERVICE_STATUS_PROCESS Wait();

private:
    struct Registration;
    std::unique_ptr<Registration> registration;
};

/// Installs a program as the service OrvikService, and starts nothing. EndLeftovers() removes it.
/// Throws std::system_error.
void InstallService(const std::wstring& programPath, const std::wstring& arguments = {});

/// StartServiceW alone: neither waits nor looks. The error, ERROR_SUCCESS if there was none.
DWORD StartInstalledService();

/// ControlService: the error, ERROR_SUCCESS if there was none.
DWORD ControlInstalledService(DWORD control);

SERVICE_STATUS_PROCESS StatusOfInstalledService();

/// Ends the service, with a stop control if it takes one, and removes it.
void RemoveInstalledService();

/// Removes an OrvikService that an earlier run of these tests has left. Throws std::runtime_error
/// if there is one that they have not made.
void RemoveLeftService();

}  // namespace system_test
