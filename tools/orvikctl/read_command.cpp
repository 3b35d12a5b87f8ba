#include <memory>

#include "blocks.h"
#include "commands.h"
#include "exit_code.h"
#include "partial_file.h"

namespace {

struct Options : BlockOptions {
    std::optional<std::uint32_t> count;  // none: all up to the last
    std::string output;
};

void Read(const Settings& settings, const Options& options) {
    orvik::Client client = Connect(settings);
    const orvik::CameraId camera = ChooseCamera(client, options.camera);
    Transfers transfers(client, camera, options.timeout);
    const orvik::Capacity capacity = ReadCapacity(transfers);
    const Extent extent = ChooseExtent(capacity, options.first, options.count, "--blocks");

    PartialFile file(PathOf(options.output));
    Carry(
        transfers, capacity, extent, options.outstanding,
        [&](const Extent& piece) { transfers.StartIn(orvik::Read6Cdb(piece.first, piece.count)); },
        [&](const Extent& piece, const std::vector<std::byte>& data) {
            if (data.size() != std::size_t{piece.count} * capacity.blockLength)
                throw Failure(ExitCode::kTransport,
                              "the camera returned " + std::to_string(data.size()) +
                                  " bytes instead of " +
                                  std::to_string(std::size_t{piece.count} * capacity.blockLength) +
                                  " for " + Words(piece));
            file.Write(data);
        });
    file.Commit();
    Report(settings, "read", camera, extent, capacity);
}

}  // namespace

void AddRead(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand("read", "Read blocks of a camera into a file");
    auto options = std::make_shared<Options>();
    AddBlockOptions(*command, *options);
    command
        ->add_option_function<std::string>("--blocks",
                                           Decimal<std::uint32_t>("--blocks", options->count, 1),
                                           "Number of blocks (default: all up to the last)")
        ->type_name("COUNT");
    command
        ->add_option("-o,--output", options->output,
                     "File to write; it appears under this name when it is complete")
        ->type_name("FILE")
        ->required();
    command->callback([&settings, options] { Read(settings, *options); });
}
