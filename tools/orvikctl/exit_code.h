#pragma once

#include <stdexcept>
#include <string>

#include <windows.h>

#include "orvik/client.h"

/// The exit code of orvikctl. Scripts rely on the numbers.
enum class ExitCode {
    kSuccess = 0,
    kFailure = 1,  // any other failure
    kUsage = 2,
    kAccessDenied = 3,
    kCancelled = 4,
    kNotReachable = 5,  // the service is not running, or accepts no connection
    kNoSuchCamera = 6,
    kTimedOut = 7,
    kRefused = 8,    // by the camera
    kTransport = 9,  // the connection to the service failed, or an answer was invalid
};

/// Ends the command with a message and an exit code.
class Failure : public std::runtime_error {
public:
    Failure(ExitCode exitCode, const std::string& text)
        : std::runtime_error(text),
          code(exitCode) {}

    ExitCode Code() const noexcept { return code; }

private:
    ExitCode code;
};

/// A system call failed. The exit code is ExitCode::kFailure; the system's words for `systemCode`
/// and the code itself are appended to the message.
class SystemFailure : public Failure {
public:
    /// `systemCode` is that of the call that failed.
    explicit SystemFailure(const std::string& text, DWORD systemCode = ::GetLastError())
        : Failure(ExitCode::kFailure,
                  orvik::Error(orvik::ErrorKind::kSystem, text, systemCode).what()) {}
};
