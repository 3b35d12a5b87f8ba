#include <memory>

#include "blocks.h"
#include "commands.h"
#include "exit_code.h"
#include "input_file.h"
#include "streams.h"

namespace {

struct Options : BlockOptions {
    std::string input;
};

std::uint64_t BlocksIn(const InputFile& file, std::uint32_t blockLength) {
    const std::uint64_t size = file.Size();
    if (size == 0 || size % blockLength != 0)
        throw Failure(ExitCode::kFailure, "the size of " + file.Name() + " is " +
                                              std::to_string(size) +
                                              " bytes, but must be a multiple of the block size, " +
                                              std::to_string(blockLength) + ", and not 0");
    return size / blockLength;
}

void Write(const Settings& settings, const Options& options) {
    InputFile file(PathOf(options.input));
    orvik::Client client = Connect(settings);
    const orvik::CameraId camera = ChooseCamera(client, options.camera);
    Transfers transfers(client, camera, options.timeout);
    const orvik::Capacity capacity = ReadCapacity(transfers);
    const Extent extent =
        ChooseExtent(capacity, options.first, BlocksIn(file, capacity.blockLength),
                     "the number of blocks in the file");

    std::uint32_t blocksWritten = 0;
    try {
        Carry(
            transfers, capacity, extent, options.outstanding,
            [&](const Extent& piece) {
                const std::size_t length = std::size_t{piece.count} * capacity.blockLength;
                const std::vector<std::byte> data = file.Read(length);
                if (data.size() != length)
                    throw Failure(ExitCode::kFailure,
                                  file.Name() + " has become shorter while it was read");
                transfers.StartOut(orvik::Write6Cdb(piece.first, piece.count), data);
            },
            [&](const Extent& piece, const std::vector<std::byte>&) {
                blocksWritten += piece.count;
            });
    } catch (...) {
        // The blocks of outstanding commands may have been written too.
        Say("confirmed written: " + Words({extent.first, blocksWritten}) + "\n");
        throw;
    }
    Report(settings, "wrote", camera, extent, capacity);
}

}  // namespace

void AddWrite(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand("write", "Write a file into blocks of a camera");
    auto options = std::make_shared<Options>();
    AddBlockOptions(*command, *options);
    command
        ->add_option("-i,--input", options->input,
                     "File to read; its size must be a multiple of the block size")
        ->type_name("FILE")
        ->required();
    command->callback([&settings, options] { Write(settings, *options); });
}
