// orvikctl: shows whether OrvikService works, and sends SCSI commands to its cameras.

#include <exception>
#include <string>

#include <CLI/CLI.hpp>

#include "arguments.h"
#include "cancellation.h"
#include "command_line.h"
#include "commands.h"
#include "exit_code.h"
#include "orvik/client.h"
#include "streams.h"
#include "windows/system_dll.h"

namespace {

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
        case orvik::ErrorKind::kCameraGone:
            return ExitCode::kRefused;
        case orvik::ErrorKind::kServiceGone:
        case orvik::ErrorKind::kBadAnswer:
        case orvik::ErrorKind::kSystem:
            return ExitCode::kTransport;
        case orvik::ErrorKind::kBadArgument:
            return ExitCode::kUsage;
    }
    return ExitCode::kFailure;
}

void Run() {
    Settings settings;
    CLI::App app("Shows whether OrvikService works, and sends SCSI commands to its cameras.",
                 "orvikctl");
    app.allow_windows_style_options(false);  // a path may begin with a slash
    app.fallthrough();                       // --json may stand before or after the command
    app.require_subcommand(1);
    app.footer(
        "Options of every command:\n"
        "  --json              Print JSON, as described in docs/orvikctl.md\n"
        "  --no-server-check   Connect even if the pipe is not served by the installed service,\n"
        "                      for example to a service that runs in a console\n\n"
        "Exit codes: 0 success, 1 other failure, 2 wrong arguments, 3 access denied, 4 cancelled,\n"
        "5 the service cannot be reached, 6 no such camera, 7 timed out,\n"
        "8 refused by the camera, 9 the connection to the service failed.");
    app.add_flag("--json", settings.json)->group("");  // the footer describes both
    app.add_flag("!--no-server-check", settings.checkServer)->group("");

    AddStatus(app, settings);
    AddList(app, settings);
    AddWatch(app, settings);
    AddPing(app, settings);
    AddInquiry(app, settings);
    AddRead(app, settings);
    AddWrite(app, settings);
    AddRaw(app, settings);
    AddVersion(app, settings);

    try {
        app.parse(ReversedArguments());  // which calls the command
    } catch (const CLI::CallForHelp&) {
        const auto named = app.get_subcommands();
        Print(named.empty() ? app.help() : named.front()->help(app.get_name()));
    } catch (const CLI::ParseError& error) {
        throw Failure(ExitCode::kUsage, error.what());
    }
}

ExitCode Fail(const std::exception& error, ExitCode code) {
    Say("orvikctl: error: " + Printable(error.what()) + "\n");
    if (code == ExitCode::kUsage)
        Say("Try orvikctl --help\n");
    return code;
}

ExitCode RunAndReport() {
    try {
        CatchCancellation();
        Run();
        return ExitCode::kSuccess;
    } catch (const Failure& error) {
        return Fail(error, error.Code());
    } catch (const orvik::Error& error) {
        return Fail(error, ExitCodeOf(error.Kind()));
    } catch (const std::exception& error) {
        return Fail(error, ExitCode::kFailure);
    }
}

}  // namespace

int main() {
    LoadDllsFromSystemFolderOnly();
    return static_cast<int>(RunAndReport());
}
