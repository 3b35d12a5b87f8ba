#include "exit_code.h"

namespace {

constexpr ExitCodeMeaning kTable[] = {
    {ExitCode::kSuccess, "success"},
    {ExitCode::kFailure,
     "other failure: of a file, because the camera doesn't have the blocks, or because the data "
     "differs"},
    {ExitCode::kUsage, "wrong arguments; several cameras are present and --camera is missing"},
    {ExitCode::kAccessDenied, "access to the service denied"},
    {ExitCode::kCancelled, "cancelled with Ctrl-C"},
    {ExitCode::kNotReachable,
     "the service cannot be reached: not installed, stopped, starting, busy, or another process "
     "serves its pipe"},
    {ExitCode::kNoSuchCamera, "no such camera"},
    {ExitCode::kTimedOut, "timed out"},
    {ExitCode::kRefused, "the camera refused the command"},
    {ExitCode::kTransport, "the connection to the service failed, or an answer was invalid"},
    {ExitCode::kCameraGone,
     "the camera was unplugged during the command, or the service has given it up"},
};

}  // namespace

std::span<const ExitCodeMeaning> ExitCodeTable() noexcept {
    return kTable;
}

ExitCode ExitCodeOf(orvik::ErrorKind kind) noexcept {
    switch (kind) {
        case orvik::ErrorKind::kNotInstalled:
        case orvik::ErrorKind::kStopped:
        case orvik::ErrorKind::kStarting:
        case orvik::ErrorKind::kBusy:
        case orvik::ErrorKind::kWrongServer:
            return ExitCode::kNotReachable;
        case orvik::ErrorKind::kAccessDenied:
            return ExitCode::kAccessDenied;
        case orvik::ErrorKind::kTimedOut:
            return ExitCode::kTimedOut;
        case orvik::ErrorKind::kCancelled:
            return ExitCode::kCancelled;
        case orvik::ErrorKind::kNoSuchCamera:
            return ExitCode::kNoSuchCamera;
        case orvik::ErrorKind::kRefused:
            return ExitCode::kRefused;
        case orvik::ErrorKind::kCameraGone:
            return ExitCode::kCameraGone;
        case orvik::ErrorKind::kServiceGone:
        case orvik::ErrorKind::kBadAnswer:
        case orvik::ErrorKind::kSystem:
            return ExitCode::kTransport;
        case orvik::ErrorKind::kBadArgument:
            return ExitCode::kUsage;
    }
    return ExitCode::kFailure;
}
