#include <array>
#include <cstdio>
#include <memory>
#include <span>

#include "blocks.h"
#include "camera_use.h"
#include "commands.h"
#include "comparison.h"
#include "exit_code.h"
#include "output.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options : BlockOptions {
    std::optional<std::uint32_t> count;  // none: all up to the last
    std::string output;
    std::string comparedFile;
};

/// ", in 0.412 s: 12.4 MB/s"
std::string RateOf(std::uint64_t bytes, std::chrono::duration<double> time) {
    std::array<char, 80> text{};
    std::snprintf(text.data(), text.size(), ", in %.3f s: %.1f MB/s", time.count(),
                  static_cast<double>(bytes) / 1e6 / std::max(time.count(), 1e-6));
    return text.data();
}

void ReadIntoFile(const Settings& settings, const Options& options) {
    Output output(settings, options.output);  // first: a wrong name costs no time then
    UseCamera(settings, options, [&](Transfers& transfers, orvik::CameraId camera) {
        const orvik::Capacity capacity = ReadCapacity(transfers);
        const Extent extent = ChooseExtent(capacity, options.first, options.count, "--blocks");
        const std::uint64_t bytes = std::uint64_t{extent.count} * capacity.blockLength;
        output.RequireSpace(bytes);
        const auto start = Clock::now();
        ReadBlocks(transfers, capacity, extent, options, "read",
                   [&](const Extent&, std::span<const std::byte> data) { output.Write(data); });
        const std::chrono::duration<double> time = Clock::now() - start;
        output.Commit();
        Print(settings, {"read", camera, extent, capacity.blockLength, time,
                         output.IsNowhere() ? RateOf(bytes, time) : ""});
    });
}

void CompareWithFile(const Settings& settings, const Options& options) {
    InputFile file = InputFile::Open(options.comparedFile);
    UseCamera(settings, options, [&](Transfers& transfers, orvik::CameraId camera) {
        const orvik::Capacity capacity = ReadCapacity(transfers);
        const Extent extent = ChooseExtent(capacity, options.first, file);
        const auto start = Clock::now();
        CompareBlocks(transfers, capacity, extent, options, "compare", file);
        Print(settings, {"compared", camera, extent, capacity.blockLength, Clock::now() - start,
                         ": no difference"});
    });
}

void Read(const Settings& settings, const Options& options) {
    if (options.output.empty() == options.comparedFile.empty())
        throw UsageError("exactly one of --output and --compare must be given");
    if (options.comparedFile.empty())
        ReadIntoFile(settings, options);
    else
        CompareWithFile(settings, options);
}

}  // namespace

void AddRead(CLI::App& app, const Settings& settings) {
    auto* const command = app.add_subcommand(
        "read", "Read blocks of a camera into a file, or compare them with a file");
    auto options = std::make_shared<Options>();
    AddBlockOptions(*command, *options);
    auto* const count = command
                            ->add_option_function<std::string>(
                                "--blocks", Decimal<std::uint32_t>("--blocks", options->count, 1),
                                "Number of blocks (default: all up to the last)")
                            ->type_name("COUNT");
    command
        ->add_option("-o,--output", options->output,
                     "File to write; it appears under this name when it is complete. - is standard "
                     "output; NUL keeps nothing, to measure. In PowerShell up to version 7.3 use a "
                     "file: a pipeline or > damages binary data there")
        ->type_name("FILE");
    command
        ->add_option("--compare", options->comparedFile,
                     "Compare with all blocks of this file instead; - is standard input")
        ->type_name("FILE")
        ->excludes(count);
    command->callback([&settings, options] { Read(settings, *options); });
}
