#include <array>
#include <cstdio>

#include "commands.h"
#include "json.h"

namespace {

/// Connecting makes a harmless round trip through the service's dispatcher.
void Ping(const Settings& settings) {
    const auto start = std::chrono::steady_clock::now();
    const orvik::Client client = Connect(settings);
    const double milliseconds = MillisecondsSince(start);
    if (settings.json) {
        Json json = NewJson();
        json["round_trip_ms"] = milliseconds;
        PrintJson(json);
        return;
    }
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), "the service answered in %.3f ms\n", milliseconds);
    Print(text.data());
}

}  // namespace

void AddPing(CLI::App& app, const Settings& settings) {
    app.add_subcommand("ping", "Connect to the service and print how long its answer took")
        ->callback([&settings] { Ping(settings); });
}
