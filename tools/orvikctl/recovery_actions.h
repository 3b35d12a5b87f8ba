// What the service control manager does when the service's process ends unexpectedly.
#pragma once

#include <string>
#include <vector>

#include <windows.h>

#include "json.h"

struct RecoveryAction {
    std::string words;
    DWORD delay;  // in milliseconds
};

/// In the order of the failures: the first is for the first one.
std::vector<RecoveryAction> RecoveryActionsOf(const SERVICE_FAILURE_ACTIONSW& config);

/// "restart after 1000 ms, none after 0 ms"; "none" if there are no actions.
std::string Words(const std::vector<RecoveryAction>& actions);

/// An array of objects with the keys `action` and `delay_ms`.
Json JsonOf(const std::vector<RecoveryAction>& actions);
