#include "commands.h"
#include "json.h"

namespace {

void Version(const Settings& settings) {
    if (settings.json) {
        Json json = NewJson();
        json["version"] = ORVIK_VERSION;
        PrintJson(json);
        return;
    }
    Print("orvikctl " ORVIK_VERSION "\n");
}

}  // namespace

void AddVersion(CLI::App& app, const Settings& settings) {
    app.add_subcommand("version", "Print the version of this program")->callback([&settings] {
        Version(settings);
    });
}
