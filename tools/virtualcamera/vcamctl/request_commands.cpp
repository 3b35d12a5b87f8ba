// Commands that show and release the requests of a camera.

#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "commands.h"
#include "output.h"
#include "virtual_camera.h"

namespace {

std::string HexDump(const std::vector<std::byte>& bytes) {
    std::string dump;
    for (std::size_t offset = 0; offset < bytes.size(); offset += 16) {
        const std::size_t count = std::min<std::size_t>(16, bytes.size() - offset);
        std::string hex;
        std::string text;
        for (std::size_t i = 0; i < count; ++i) {
            const auto value = std::to_integer<unsigned>(bytes[offset + i]);
            std::array<char, 4> digits = {};
            std::snprintf(digits.data(), digits.size(), "%02x ", value);
            hex += digits.data();
            text += value >= 0x20 && value < 0x7f ? static_cast<char>(value) : '.';
        }
        std::array<char, 100> line = {};
        std::snprintf(line.data(), line.size(), "  %06zx  %-48s %s\n", offset, hex.c_str(),
                      text.c_str());
        dump += line.data();
    }
    return dump;
}

void PrintRequests(vcam::CameraId id, std::uint32_t count) {
    for (const vcam::Request& request : vcam::Bus().LastRequests(id, count))
        Print("request " + std::to_string(request.sequenceNumber) + ": input " +
              std::to_string(request.inputLength) + " bytes, output " +
              std::to_string(request.outputLength) + " bytes\n" + HexDump(request.block));
}

}  // namespace

void AddRequests(CLI::App& app) {
    auto* const command =
        app.add_subcommand("requests", "Show the last requests of a camera as it received them");
    auto id = std::make_shared<vcam::CameraId>(0);
    auto count = std::make_shared<std::uint32_t>(8);
    AddCamera(*command, *id)->required();
    command->add_option("--count", *count, "Number of requests")
        ->check(NumberFrom(std::uint32_t{0}, vcam::kRequestsKept))
        ->capture_default_str();
    command->callback([id, count] { PrintRequests(*id, *count); });
}

void AddRelease(CLI::App& app) {
    auto* const command = app.add_subcommand("release", "Complete held requests");
    auto id = std::make_shared<vcam::CameraId>(0);
    auto sequenceNumber = std::make_shared<std::optional<std::uint64_t>>();
    AddCamera(*command, *id)->required();
    command
        ->add_option("sequence", *sequenceNumber,
                     "Number of the request, as printed by requests (default: all held requests)")
        ->check(NumberFrom(std::uint64_t{1}, std::numeric_limits<std::uint64_t>::max()));
    command->callback([id, sequenceNumber] {
        vcam::Bus bus;
        if (*sequenceNumber)
            bus.Release(*id, **sequenceNumber);
        else
            bus.ReleaseAll(*id);
    });
}
