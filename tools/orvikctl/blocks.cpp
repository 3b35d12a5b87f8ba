#include "blocks.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <utility>

#include "exit_code.h"
#include "json.h"

namespace {

/// Most blocks that one command transfers. The service limits the data of a read, and a write uses
/// the same limit.
std::uint32_t BlocksPerCommand(const orvik::Capacity& capacity) {
    const auto fitting = static_cast<std::uint32_t>(orvik::kTransferInLimit / capacity.blockLength);
    if (fitting == 0)
        throw Failure(ExitCode::kFailure, "a block of the camera has " +
                                              std::to_string(capacity.blockLength) +
                                              " bytes, but one command can transfer only " +
                                              std::to_string(orvik::kTransferInLimit));
    return std::min(fitting, orvik::kRead6CountLimit);
}

/// The camera was present when it reported its capacity.
void Start(const std::function<void(const Extent& piece)>& start, const Extent& piece) {
    try {
        start(piece);
    } catch (const orvik::Error& error) {
        if (error.Kind() != orvik::ErrorKind::kNoSuchCamera)
            throw;
        throw Failure(ExitCode::kCameraGone,
                      "the camera was unplugged before the command for " + Words(piece));
    }
}

std::vector<std::byte> Finish(Transfers& transfers, const Extent& piece,
                              const std::function<void()>& meanwhile) {
    try {
        return transfers.Finish(meanwhile);
    } catch (const orvik::Error& error) {
        if (error.Kind() == orvik::ErrorKind::kRefused)
            throw orvik::Error(error.Kind(), "the camera refused the command for " + Words(piece));
        if (error.Kind() == orvik::ErrorKind::kCameraGone)
            throw orvik::Error(error.Kind(), std::string(error.what()) + " for " + Words(piece));
        throw;
    }
}

std::function<void(const std::string&)> StoreProgress(ProgressKind& progress) {
    return [&progress](const std::string& text) {
        if (text != "json")
            throw UsageError("--progress must be json, not \"" + text + "\"");
        progress = ProgressKind::kLines;
    };
}

std::uint64_t BlocksIn(const InputFile& file, std::uint32_t blockLength) {
    const std::uint64_t size = file.Size();
    if (size == 0 || size % blockLength != 0)
        throw Failure(ExitCode::kFailure, "the size of " + file.Name() + " is " +
                                              std::to_string(size) +
                                              " bytes, but must be a multiple of the block size, " +
                                              std::to_string(blockLength) + ", and not 0");
    return size / blockLength;
}

}  // namespace

void AddBlockOptions(CLI::App& command, BlockOptions& options) {
    AddCameraOptions(command, options);
    command
        .add_option_function<std::string>(
            "--first", Decimal<std::uint32_t>("--first", options.first), "First block")
        ->type_name("BLOCK")
        ->default_str("0");
    command
        .add_option_function<std::string>("--progress", StoreProgress(options.progress),
                                          "json: print the progress as one JSON object a second on "
                                          "standard error (default: a bar on a console)")
        ->type_name("json");
    command
        .add_option_function<std::string>(
            "--outstanding", Decimal<std::uint32_t>("--outstanding", options.outstanding, 1, 64))
        ->group("");  // for measurements
}

std::string Words(const Extent& extent) {
    return std::to_string(extent.count) + (extent.count == 1 ? " block" : " blocks") +
           " starting at block " + std::to_string(extent.first);
}

void Print(const Settings& settings, const BlockReport& report) {
    const std::uint64_t bytes = std::uint64_t{report.extent.count} * report.blockLength;
    Inform(settings, std::string(report.done) + " " + Words(report.extent) + ", " +
                         std::to_string(bytes) + " bytes" + report.ending);
    if (!settings.json)
        return;
    Json json = NewJson();
    json["camera"] = report.camera;
    json["first_block"] = report.extent.first;
    json["blocks"] = report.extent.count;
    json["bytes"] = bytes;
    json["seconds"] = std::round(report.time.count() * 1e6) / 1e6;
    PrintJson(json);
}

orvik::Capacity ReadCapacity(Transfers& transfers) {
    transfers.StartIn(orvik::ReadCapacityCdb());
    return orvik::DecodeCapacity(transfers.Finish());
}

Extent ChooseExtent(const orvik::Capacity& capacity, std::uint32_t first,
                    std::optional<std::uint64_t> count, const char* countName) {
    const std::string has = "the camera has " + std::to_string(capacity.blockCount) + " blocks";
    if (first >= capacity.blockCount)
        throw Failure(ExitCode::kFailure, has + ": --first must be a number from 0 to " +
                                              std::to_string(capacity.blockCount - 1) + ", not " +
                                              std::to_string(first));
    const std::uint64_t rest = capacity.blockCount - first;
    if (count.value_or(rest) > rest)
        throw Failure(ExitCode::kFailure, has + ": starting at block " + std::to_string(first) +
                                              ", " + countName + " must be at most " +
                                              std::to_string(rest) + ", not " +
                                              std::to_string(*count));
    if (first + count.value_or(rest) > orvik::kRead6BlockLimit)
        throw Failure(ExitCode::kFailure, has + ", but READ(6) and WRITE(6) reach only the first " +
                                              std::to_string(orvik::kRead6BlockLimit));
    return {first, static_cast<std::uint32_t>(count.value_or(rest))};
}

Extent ChooseExtent(const orvik::Capacity& capacity, std::uint32_t first, const InputFile& file) {
    return ChooseExtent(capacity, first, BlocksIn(file, capacity.blockLength),
                        "the number of blocks in the file");
}

void Carry(Transfers& transfers, const orvik::Capacity& capacity, const Extent& extent,
           const BlockOptions& options, const char* step,
           const std::function<void(const Extent& piece)>& start,
           const std::function<void(const Extent& piece, std::vector<std::byte> data)>& finished) {
    const std::uint32_t blocksPerCommand = BlocksPerCommand(capacity);
    const auto progress =
        NewProgress(options.progress, step, std::uint64_t{extent.count} * capacity.blockLength);
    std::deque<Extent> pieces;  // outstanding, oldest first
    Extent rest = extent;
    while (rest.count != 0 || !pieces.empty()) {
        while (rest.count != 0 && pieces.size() < options.outstanding) {
            const Extent piece{rest.first, std::min(rest.count, blocksPerCommand)};
            Start(start, piece);
            pieces.push_back(piece);
            rest = {rest.first + piece.count, rest.count - piece.count};
        }
        const Extent piece = pieces.front();
        const auto bytesBefore = [&](std::uint64_t block) {
            return (block - extent.first) * capacity.blockLength;
        };
        finished(piece,
                 Finish(transfers, piece, [&] { progress->Show(bytesBefore(piece.first)); }));
        pieces.pop_front();
        progress->Show(bytesBefore(std::uint64_t{piece.first} + piece.count));
    }
}

void ReadBlocks(
    Transfers& transfers, const orvik::Capacity& capacity, const Extent& extent,
    const BlockOptions& options, const char* step,
    const std::function<void(const Extent& piece, std::span<const std::byte> data)>& received) {
    Carry(
        transfers, capacity, extent, options, step,
        [&](const Extent& piece) { transfers.StartIn(orvik::Read6Cdb(piece.first, piece.count)); },
        [&](const Extent& piece, const std::vector<std::byte>& data) {
            const std::size_t length = std::size_t{piece.count} * capacity.blockLength;
            if (data.size() != length)
                throw Failure(ExitCode::kTransport,
                              "the camera returned " + std::to_string(data.size()) +
                                  " bytes instead of " + std::to_string(length) + " for " +
                                  Words(piece));
            received(piece, data);
        });
}
