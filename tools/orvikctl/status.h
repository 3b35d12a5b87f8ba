#pragma once

#include <exception>
#include <string>

#include "arguments.h"
#include "json.h"

/// The output of the command `status`.
struct ServiceStatus {
    std::string text;
    Json json;
    std::exception_ptr connectionError;  // an orvik::Error; null if the connection succeeded
};

/// Throws Failure with ExitCode::kCancelled on Ctrl-C.
ServiceStatus FindStatus(const Settings& settings);
