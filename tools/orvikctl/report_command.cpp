#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <windows.h>

#include "cancellation.h"
#include "commands.h"
#include "exit_code.h"
#include "json.h"
#include "paths.h"
#include "report_folder.h"
#include "report_parts.h"
#include "utc_time.h"
#include "windows/utf.h"

namespace {

constexpr char kPrivacy[] =
    "The dumps contain parts of the service's memory, which can be private data: parts of "
    "pictures,\n"
    "names of files and users. The other files name this machine's user, folders and drives.\n"
    "Look at the files before you pass them on, and delete those that you don't want to.\n";

/// A file or folder of the report.
struct Part {
    std::string name;
    std::function<void(ReportFolder&)> collect;
    std::string missing;  // why it could not be collected; empty if it was
};

std::vector<Part> Parts(const Settings& settings) {
    return {{"status.json", [&](ReportFolder& folder) { ReportStatus(folder, settings); }, {}},
            {"service.json", ReportService, {}},
            {"versions.json", ReportVersions, {}},
            {"windows.json", ReportWindows, {}},
            {"application.json", ReportApplication, {}},
            {"cameras.json", ReportCameras, {}},
            {"log.txt", ReportLog, {}},
            {"log.old.txt", ReportOldLog, {}},
            {"dumps", ReportDumps, {}},
            {"events.xml", ReportEvents, {}},
            {"leftovers.json", ReportLeftovers, {}}};
}

/// A line for each part.
std::string Text(const std::vector<Part>& parts) {
    std::string text;
    for (const Part& part : parts) {
        text += part.name;
        if (!part.missing.empty())
            text += std::string(18 - part.name.size(), ' ') +
                    "not collected: " + Printable(part.missing);
        text += "\n";
    }
    return text;
}

Json JsonOf(const std::string& folder, const std::vector<Part>& parts) {
    Json json = NewJson();
    json["folder"] = folder;
    json["parts"] = Json::array();
    for (const Part& part : parts)
        json["parts"].push_back({{"name", part.name},
                                 {"collected", part.missing.empty()},
                                 {"reason", part.missing.empty() ? Json() : Json(part.missing)}});
    json["private_data"] = kPrivacy;
    return json;
}

std::string Now() {
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    return TimeOf(now);
}

void Report(const Settings& settings, const std::string& argument) {
    const std::filesystem::path path = FullPath(PathOf(argument));
    ReportFolder folder(path);
    std::vector<Part> parts = Parts(settings);
    for (Part& part : parts) {
        try {
            part.collect(folder);
        } catch (const std::exception& error) {
            ThrowIfCancelled();
            part.missing = error.what();
        }
        ThrowIfCancelled();
    }
    folder.Keep();  // also without report.txt: not removed except on Ctrl-C
    std::exception_ptr error;
    try {
        // Last: a report without this file is not complete.
        folder.Write("report.txt", "Made by orvikctl " ORVIK_VERSION " at " + Now() + ".\n\n" +
                                       kPrivacy + "\n" + Text(parts));
    } catch (const Failure&) {
        error = std::current_exception();
    }
    const std::string name = ToUtf8(path.native());
    if (settings.json)
        PrintJson(JsonOf(name, parts));
    else
        Print("The report is in " + Printable(name) + ":\n" + Text(parts) + "\n" + kPrivacy);
    if (error)
        std::rethrow_exception(error);
}

}  // namespace

void AddReport(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand(
        "report",
        "Collect what a support case needs into a new folder: status, log, dumps and more");
    auto folder = std::make_shared<std::string>();
    command->add_option("-o,--output", *folder, "The folder, which must not exist yet")
        ->type_name("FOLDER")
        ->required();
    command->callback([&settings, folder] { Report(settings, *folder); });
}
