#include <array>
#include <cstdio>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "cancellation.h"
#include "commands.h"
#include "crash_reason.h"
#include "error_report.h"
#include "json.h"
#include "service_control.h"
#include "service_dumps.h"
#include "service_folders.h"
#include "service_program.h"
#include "status.h"
#include "utc_time.h"
#include "windows/utf.h"

namespace {

/// One line of the report, in words and as JSON.
struct Fact {
    std::string words;
    Json value;
};

/// The lines of the report. A fact that cannot be determined is reported as unknown, with the
/// cause.
class Report {
public:
    /// `find` throws if the fact cannot be determined. Throws only on Ctrl-C, then Failure.
    void Add(const char* key, const char* label, const std::function<Fact()>& find) {
        Fact fact;
        try {
            fact = find();
        } catch (const std::exception& error) {
            ThrowIfCancelled();
            fact.words = std::string("unknown: ") + error.what();
            unknown[key] = error.what();
        }
        std::array<char, 20> column{};
        std::snprintf(column.data(), column.size(), "%-14s", label);
        text += column.data() + Printable(fact.words) + "\n";
        json[key] = fact.value;
    }

    /// Not in words.
    void AddJson(const char* key, const Json& value) { json[key] = value; }

    ServiceStatus Finish(std::exception_ptr connectionError) {
        json["unknown"] = unknown;
        return {text, json, std::move(connectionError)};
    }

private:
    std::string text;
    Json json = NewJson();
    Json unknown = Json::object();
};

Fact FactOf(const std::string& text) {
    return {text, text};
}

Fact FactOf(const std::filesystem::path& path) {
    return FactOf(ToUtf8(path.wstring()));
}

Fact NoFact() {
    return {"none", nullptr};
}

Fact ProcessFact() {
    const std::optional<DWORD> id = ServiceProcess();
    return id ? Fact{std::to_string(*id), *id} : NoFact();
}

Fact RecoveryFact() {
    const std::vector<RecoveryAction> actions = ServiceRecovery();
    return {Words(actions), JsonOf(actions)};
}

/// Sets `origin` unless the folder is where the registry says.
Fact LogFolderFact(Json& origin) {
    const ServiceFolder folder = ServiceLogFolder();
    Fact fact = FactOf(folder.path);
    if (!folder.origin.empty()) {
        fact.words += " (" + folder.origin + ")";
        origin = folder.origin;
    }
    return fact;
}

Fact DumpFact() {
    const std::optional<Dump> dump = NewestServiceDump(ServiceDumpFolder());
    if (!dump)
        return NoFact();
    const std::string name = ToUtf8(dump->name.wstring());
    const std::string time = TimeOf(dump->written);
    return {name + ", " + time, {{"name", name}, {"time", time}}};
}

/// Of the newest dump of the service.
Fact CrashFact() {
    const std::filesystem::path folder = ServiceDumpFolder();
    const std::optional<Dump> dump = NewestServiceDump(folder);
    if (!dump)
        return {"no dump", nullptr};
    const CrashReason reason = CrashReasonOf(folder / dump->name);
    return {TimeOf(reason.time) + ", " + reason.Words(), JsonOf(reason)};
}

/// The result of an attempt to connect.
struct Connection {
    std::exception_ptr error;  // null if it succeeded
    double milliseconds = 0;
    std::vector<orvik::CameraId> cameras;
};

Connection TryToConnect(const Settings& settings) {
    Connection connection;
    try {
        orvik::Client client = Connect(settings);
        connection.milliseconds = MillisecondsOfRoundTrip(client);
        connection.cameras = client.Cameras();
    } catch (const orvik::Error&) {
        connection.error = std::current_exception();
    }
    return connection;
}

/// Throws orvik::Error if the attempt failed.
const Connection& Made(const Connection& connection) {
    if (connection.error)
        throw orvik::Error(orvik::ErrorKind::kServiceGone, "there is no connection to the service");
    return connection;
}

Fact PipeFact(const Connection& connection) {
    try {
        if (connection.error)
            std::rethrow_exception(connection.error);
        return {"reachable", true};
    } catch (const orvik::Error& error) {
        return {std::string("not reachable: ") + error.what(), false};
    }
}

/// Why the service cannot be reached. Null if it can.
Json ErrorJson(const Connection& connection) {
    try {
        if (connection.error)
            std::rethrow_exception(connection.error);
        return nullptr;
    } catch (const orvik::Error& error) {
        return JsonOf(ErrorOf(error));
    }
}

Fact RoundTripFact(const Connection& connection) {
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%.3f ms", Made(connection).milliseconds);
    return {text.data(), connection.milliseconds};
}

Fact CamerasFact(const Connection& connection) {
    std::string words;
    for (const orvik::CameraId camera : Made(connection).cameras)
        words += (words.empty() ? "" : " ") + std::to_string(camera);
    return {words.empty() ? "none" : words, connection.cameras};
}

}  // namespace

ServiceStatus FindStatus(const Settings& settings) {
    const Connection connection = TryToConnect(settings);
    Report report;
    report.Add("installed", "installed", [] {
        return IsServiceInstalled() ? Fact{"yes", true} : Fact{"no", false};
    });
    report.Add("start_type", "start type", [] { return FactOf(ServiceStartType()); });
    report.Add("state", "state", [] { return FactOf(ServiceState()); });
    report.Add("process", "process", ProcessFact);
    report.Add("program", "program", [] { return FactOf(ServiceProgram()); });
    report.Add("version", "version", [] { return FactOf(ServiceVersion()); });
    report.Add("reachable", "pipe", [&] { return PipeFact(connection); });
    report.AddJson("error", ErrorJson(connection));
    report.Add("round_trip_ms", "round trip", [&] { return RoundTripFact(connection); });
    report.Add("cameras", "cameras", [&] { return CamerasFact(connection); });
    Json origin;
    report.Add("log_folder", "log folder", [&] { return LogFolderFact(origin); });
    report.AddJson("log_folder_origin", origin);
    report.Add("dump_folder", "dump folder", [] { return FactOf(ServiceDumpFolder()); });
    report.Add("newest_dump", "newest dump", DumpFact);
    report.Add("last_crash", "last crash", CrashFact);
    report.Add("recovery", "recovery", RecoveryFact);
    return report.Finish(connection.error);
}

void AddStatus(CLI::App& app, const Settings& settings) {
    app.add_subcommand("status", "Print whether the service works and, if not, why")
        ->callback([&settings] {
            const ServiceStatus status = FindStatus(settings);
            if (settings.json)
                PrintJson(status.json);
            else
                Print(status.text);
            if (status.connectionError)
                std::rethrow_exception(status.connectionError);  // for the exit code
        });
}
