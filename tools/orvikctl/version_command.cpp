#include "commands.h"
#include "json.h"

void PrintVersion(const Settings& settings) {
    if (settings.json) {
        Json json = NewJson();
        json["version"] = ORVIK_VERSION;
        PrintJson(json);
        return;
    }
    Print("orvikctl " ORVIK_VERSION "\n");
}

void AddVersion(CLI::App& app, const Settings& settings) {
    app.add_subcommand("version", "Print the version of this program")->callback([&settings] {
        PrintVersion(settings);
    });
}
