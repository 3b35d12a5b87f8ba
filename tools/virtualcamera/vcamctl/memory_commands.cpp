// Commands that copy the memory of a camera from and to a file.

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "memory_files.h"
#include "virtual_camera.h"

namespace {

struct Arguments {
    vcam::CameraId id = 0;
    std::string file;
};

std::uint32_t BlockCountOf(vcam::Bus& bus, vcam::CameraId id) {
    for (const vcam::CameraInfo& camera : bus.List()) {
        if (camera.id == id)
            return camera.options.blockCount;
    }
    throw std::runtime_error("camera " + std::to_string(id) + " is not plugged");
}

void Load(const Arguments& given) {
    vcam::Bus bus;
    const std::vector<std::byte> bytes = ReadFile(given.file);
    CheckFits(given.file, bytes, BlockCountOf(bus, given.id));
    bus.WriteMemory(given.id, 0, bytes);
}

void Save(const Arguments& given) {
    vcam::Bus bus;
    const std::size_t length = std::size_t{BlockCountOf(bus, given.id)} * vcam::kBlockSize;
    WriteFile(given.file, bus.ReadMemory(given.id, 0, length));
}

void Add(CLI::App* command, const char* fileDescription, void (*action)(const Arguments&)) {
    auto arguments = std::make_shared<Arguments>();
    AddCamera(*command, arguments->id)->required();
    command->add_option("file", arguments->file, fileDescription)->required();
    command->callback([arguments, action] { action(*arguments); });
}

}  // namespace

void AddLoad(CLI::App& app) {
    Add(app.add_subcommand("load", "Copy a file into a camera's memory"), "The file to read", Load);
}

void AddSave(CLI::App& app) {
    Add(app.add_subcommand("save", "Copy a camera's memory into a file"), "The file to write",
        Save);
}
