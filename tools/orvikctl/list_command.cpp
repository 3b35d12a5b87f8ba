#include "commands.h"
#include "json.h"

namespace {

void List(const Settings& settings) {
    const orvik::Client client = Connect(settings);
    const std::vector<orvik::CameraId> cameras = client.Cameras();
    if (settings.json) {
        Json json = NewJson();
        json["cameras"] = cameras;
        PrintJson(json);
        return;
    }
    for (const orvik::CameraId camera : cameras)
        Print(std::to_string(camera) + "\n");
    if (cameras.empty())
        Say("no camera is present\n");
}

}  // namespace

void AddList(CLI::App& app, const Settings& settings) {
    app.add_subcommand("list", "Print the numbers of the cameras present")->callback([&settings] {
        List(settings);
    });
}
