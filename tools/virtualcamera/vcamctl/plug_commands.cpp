// Commands that plug, unplug and list cameras.

#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "memory_files.h"
#include "output.h"
#include "virtual_camera.h"
#include "windows/utf.h"

namespace {

struct PlugArguments {
    vcam::PlugOptions plug;
    std::string vendor = *vcam::PlugOptions().vendor;
    std::string product = *vcam::PlugOptions().product;
    std::string revision = *vcam::PlugOptions().revision;
    std::vector<std::string> absent;
    std::string interfaceClass = "cdrom";
    std::string instance;
    std::string memory;
};

vcam::PlugOptions OptionsOf(const PlugArguments& given) {
    const auto unlessAbsent = [&](const char* name, const std::string& text) {
        const bool absent =
            std::find(given.absent.begin(), given.absent.end(), name) != given.absent.end();
        return absent ? std::nullopt : std::optional(text);
    };
    vcam::PlugOptions options = given.plug;
    options.vendor = unlessAbsent("vendor", given.vendor);
    options.product = unlessAbsent("product", given.product);
    options.revision = unlessAbsent("revision", given.revision);
    options.interfaceClass = ParseClass(given.interfaceClass);
    options.instanceId = ToUtf16(given.instance);
    return options;
}

/// If it fails, the camera is unplugged, because its id is not printed.
void WriteMemoryOrUnplug(vcam::Bus& bus, vcam::CameraId id, const std::vector<std::byte>& memory) {
    try {
        bus.WriteMemory(id, 0, memory);
    } catch (const std::exception&) {
        try {
            bus.Unplug(id);
        } catch (const std::system_error&) {
            // The first failure is the one to report.
        }
        throw;
    }
}

void Plug(const PlugArguments& given) {
    const vcam::PlugOptions options = OptionsOf(given);
    std::vector<std::byte> memory;
    if (!given.memory.empty()) {
        memory = ReadFile(given.memory);
        CheckFits(given.memory, memory, options.blockCount);
    }
    vcam::Bus bus;
    const vcam::CameraId id = bus.Plug(options);
    if (!memory.empty())
        WriteMemoryOrUnplug(bus, id, memory);
    Print(std::to_string(id) + "\n");
}

std::string Quoted(const std::optional<std::string>& text) {
    return text ? "\"" + *text + "\"" : "(none)";
}

void List() {
    vcam::Bus bus;
    for (const vcam::CameraInfo& camera : bus.List()) {
        const vcam::PlugOptions& plug = camera.options;
        const vcam::CameraCounters counters = bus.Counters(camera.id);
        Print(std::to_string(camera.id) + "  " + ClassName(plug.interfaceClass) + "  " +
              Quoted(plug.vendor) + " " + Quoted(plug.product) + " " + Quoted(plug.revision) +
              "  " + std::to_string(plug.blockCount) + " blocks\n   " +
              ToUtf8(bus.InterfacePath(camera.id)) + "\n   " + std::to_string(counters.requests) +
              " requests, " + std::to_string(counters.pending) + " pending, " +
              std::to_string(counters.opens - counters.closes) + " handles open\n");
    }
}

}  // namespace

void AddPlug(CLI::App& app) {
    auto* const command = app.add_subcommand("plug", "Plug a camera and print its id");
    auto arguments = std::make_shared<PlugArguments>();
    PlugArguments& a = *arguments;
    command->add_option("--vendor", a.vendor, "Vendor string")->capture_default_str();
    command->add_option("--product", a.product, "Product string")->capture_default_str();
    command->add_option("--revision", a.revision, "Revision string")->capture_default_str();
    command->add_option("--absent", a.absent, "Strings that the descriptor does not contain")
        ->check(CLI::IsMember({"vendor", "product", "revision"}));
    command->add_option("--class", a.interfaceClass, "cdrom, disk or a {GUID}")
        ->capture_default_str();
    command->add_option("--blocks", a.plug.blockCount, "Size of the memory in blocks of 512 bytes")
        ->check(NumberFrom(std::uint32_t{1}, vcam::kBlockLimit))
        ->capture_default_str();
    command->add_option("--transfer-limit", a.plug.transferLimit, "Most data bytes of one command")
        ->capture_default_str();
    command->add_option("--memory", a.memory, "File with the initial content of the memory");
    command->add_option("--instance", a.instance, "Instance id, a part of the device path");
    command->callback([arguments] { Plug(*arguments); });
}

void AddUnplug(CLI::App& app) {
    auto* const command = app.add_subcommand("unplug", "Unplug one camera, or all");
    auto id = std::make_shared<vcam::CameraId>(0);
    auto all = std::make_shared<bool>(false);
    auto* const one = AddCamera(*command, *id);
    auto* const every = command->add_flag("--all", *all, "Unplug all cameras");
    one->excludes(every);
    command->callback([id, all] {
        if (!*all && *id == 0)
            throw std::runtime_error("unplug requires the id of a camera, or --all");
        vcam::Bus bus;
        if (*all)
            bus.UnplugAll();
        else
            bus.Unplug(*id);
    });
}

void AddList(CLI::App& app) {
    app.add_subcommand("list", "List the plugged cameras")->callback(List);
}
