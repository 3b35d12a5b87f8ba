// orvikctl: shows whether OrvikService works, and sends SCSI commands to its cameras.

#include <algorithm>
#include <exception>
#include <string>
#include <vector>

#include "application.h"
#include "cancellation.h"
#include "command_line.h"
#include "error_report.h"
#include "windows/system_dll.h"

namespace {

ExitCode RunAndReport() {
    Settings settings;
    std::string usageHint = "Try orvikctl --help";
    try {
        CatchCancellation();
        const std::vector<std::string> arguments = ReversedArguments();
        // Also for errors of the arguments, which are found before all of them are parsed.
        settings.json = std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
        const auto app = NewApplication(settings);
        usageHint = UsageHint(*app, arguments);
        Run(*app, settings, arguments);
        return ExitCode::kSuccess;
    } catch (const std::exception& error) {
        return ReportError(error, settings.json, usageHint);
    }
}

}  // namespace

int main() {
    LoadDllsFromSystemFolderOnly();
    return static_cast<int>(RunAndReport());
}
