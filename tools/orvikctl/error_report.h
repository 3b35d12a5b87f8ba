// Errors on standard error: in words or, with --json, as JSON.
#pragma once

#include <cstdint>
#include <exception>
#include <string>

#include "exit_code.h"
#include "json.h"

/// An error in the form in which it is reported.
struct ErrorDescription {
    std::string kind;
    std::string text;
    std::uint32_t systemCode;
    ExitCode exitCode;
    Json sense;  // null if there is none
};

ErrorDescription ErrorOf(const orvik::Error& error);

/// The object that docs/orvikctl.md describes.
Json JsonOf(const ErrorDescription& error);

/// Reports the exception on standard error and returns its exit code. `usageHint` is printed after
/// an error of the arguments.
ExitCode ReportError(const std::exception& exception, bool json, const std::string& usageHint);
