#include <memory>

#include "blocks.h"
#include "camera_use.h"
#include "commands.h"
#include "comparison.h"
#include "input_file.h"
#include "json.h"
#include "streams.h"

namespace {

struct Options : BlockOptions {
    std::string input;
    bool verify = false;
};

void ReportWritten(const Settings& settings, const Extent& written) {
    if (!settings.json) {
        Say("confirmed written: " + Words(written) + "\n");
        return;
    }
    Json json = NewJson();
    json["confirmed"] = {{"first_block", written.first}, {"blocks", written.count}};
    SayJson(json);
}

/// Writes all blocks of an extent, and verifies them if asked for. Reports how many have been
/// written if it fails. Returns the time of the writing.
std::chrono::duration<double> WriteBlocks(const Settings& settings, Transfers& transfers,
                                          const orvik::Capacity& capacity, const Extent& extent,
                                          const Options& options, InputFile& file) {
    std::uint32_t blocksWritten = 0;
    try {
        const auto start = std::chrono::steady_clock::now();
        Carry(
            transfers, capacity, extent, options, "write",
            [&](const Extent& piece) {
                transfers.StartOut(orvik::Write6Cdb(piece.first, piece.count),
                                   file.ReadAll(std::size_t{piece.count} * capacity.blockLength));
            },
            [&](const Extent& piece, const std::vector<std::byte>&) {
                blocksWritten += piece.count;
            });
        const auto end = std::chrono::steady_clock::now();
        if (options.verify) {
            file.Rewind();
            CompareBlocks(transfers, capacity, extent, options, "verify", file);
        }
        return end - start;
    } catch (...) {
        // The blocks of outstanding commands may have been written too.
        ReportWritten(settings, {extent.first, blocksWritten});
        throw;
    }
}

void Write(const Settings& settings, const Options& options) {
    InputFile file = InputFile::Open(options.input);
    UseCamera(settings, options, [&](Transfers& transfers, orvik::CameraId camera) {
        const orvik::Capacity capacity = ReadCapacity(transfers);
        const Extent extent = ChooseExtent(capacity, options.first, file);
        const std::chrono::duration<double> time =
            WriteBlocks(settings, transfers, capacity, extent, options, file);
        Print(settings, {"wrote", camera, extent, capacity.blockLength, time,
                         options.verify ? ", and verified them" : ""});
    });
}

}  // namespace

void AddWrite(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand("write", "Write a file into blocks of a camera");
    auto options = std::make_shared<Options>();
    AddBlockOptions(*command, *options);
    command
        ->add_option("-i,--input", options->input,
                     "File to read; its size must be a multiple of the block size. - is standard "
                     "input, which is read to its end first. In PowerShell up to version 7.3 use a "
                     "file: a pipeline damages binary data there")
        ->type_name("FILE")
        ->required();
    command->add_flag("--verify", options->verify,
                      "Read the blocks back and compare them with the file");
    command->callback([&settings, options] { Write(settings, *options); });
}
