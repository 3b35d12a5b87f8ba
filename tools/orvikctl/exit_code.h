// Exit codes, and the exceptions that end a command with one.
#pragma once

#include <cstdint>
#include <span>
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
    kRefused = 8,      // by the camera
    kTransport = 9,    // the connection to the service failed, or an answer was invalid
    kCameraGone = 10,  // unplugged during the command, or given up by the service
};

/// One line of the table of exit codes.
struct ExitCodeMeaning {
    ExitCode code;
    const char* meaning;
};

/// The table of exit codes, for the help. docs/orvikctl.md has the same one.
std::span<const ExitCodeMeaning> ExitCodeTable() noexcept;

ExitCode ExitCodeOf(orvik::ErrorKind kind) noexcept;

/// Ends the command with a message and an exit code.
class Failure : public std::runtime_error {
public:
    /// `systemCode` is a Windows error code, or 0.
    Failure(ExitCode exitCode, const std::string& text, std::uint32_t systemCode = 0)
        : std::runtime_error(text),
          code(exitCode),
          system(systemCode) {}

    ExitCode Code() const noexcept { return code; }
    std::uint32_t SystemCode() const noexcept { return system; }

private:
    ExitCode code;
    std::uint32_t system;
};

/// The arguments are wrong. The exit code is ExitCode::kUsage; a hint at the help follows the
/// message.
class UsageError : public Failure {
public:
    explicit UsageError(const std::string& text) : Failure(ExitCode::kUsage, text) {}
};

/// A system call failed. The exit code is ExitCode::kFailure; the system's words for `systemCode`
/// and the code itself are appended to the message.
class SystemFailure : public Failure {
public:
    /// `systemCode` is that of the call that failed.
    explicit SystemFailure(const std::string& text, DWORD systemCode = ::GetLastError())
        : Failure(ExitCode::kFailure,
                  orvik::Error(orvik::ErrorKind::kSystem, text, systemCode).what(), systemCode) {}
};
