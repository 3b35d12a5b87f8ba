#include <array>
#include <cstdio>

#include "commands.h"
#include "json.h"

namespace {

void Ping(const Settings& settings) {
    orvik::Client client = Connect(settings);
    const double milliseconds = MillisecondsOfRoundTrip(client);
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
    app.add_subcommand("ping", "Print the time of a round trip to the service")
        ->callback([&settings] { Ping(settings); });
}
