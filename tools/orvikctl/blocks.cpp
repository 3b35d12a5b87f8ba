#include "blocks.h"

#include <algorithm>
#include <deque>
#include <utility>

#include "exit_code.h"
#include "json.h"
#include "progress_bar.h"

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
        throw Failure(ExitCode::kRefused,
                      "the camera was unplugged before the command for " + Words(piece));
    }
}

std::vector<std::byte> Finish(Transfers& transfers, const Extent& piece) {
    try {
        return transfers.Finish();
    } catch (const orvik::Error& error) {
        if (error.Kind() != orvik::ErrorKind::kRefused &&
            error.Kind() != orvik::ErrorKind::kCameraGone)
            throw;
        throw Failure(ExitCode::kRefused,
                      "the camera refused the command for " + Words(piece) + ", or was unplugged");
    }
}

}  // namespace

void AddBlockOptions(CLI::App& command, BlockOptions& options) {
    AddCamera(command, options.camera);
    command
        .add_option_function<std::string>(
            "--first", Decimal<std::uint32_t>("--first", options.first), "First block")
        ->type_name("BLOCK")
        ->default_str("0");
    AddTimeout(command, options.timeout);
    command
        .add_option_function<std::string>(
            "--outstanding", Decimal<std::uint32_t>("--outstanding", options.outstanding, 1, 64))
        ->group("");  // for measurements
}

std::string Words(const Extent& extent) {
    return std::to_string(extent.count) + (extent.count == 1 ? " block" : " blocks") +
           " starting at block " + std::to_string(extent.first);
}

void Report(const Settings& settings, const char* done, orvik::CameraId camera,
            const Extent& extent, const orvik::Capacity& capacity) {
    const std::uint64_t bytes = std::uint64_t{extent.count} * capacity.blockLength;
    Say(std::string(done) + " " + Words(extent) + ", " + std::to_string(bytes) + " bytes\n");
    if (!settings.json)
        return;
    Json json = NewJson();
    json["camera"] = camera;
    json["first_block"] = extent.first;
    json["blocks"] = extent.count;
    json["bytes"] = bytes;
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

void Carry(Transfers& transfers, const orvik::Capacity& capacity, const Extent& extent,
           std::uint32_t outstanding, const std::function<void(const Extent& piece)>& start,
           const std::function<void(const Extent& piece, std::vector<std::byte> data)>& finished) {
    const std::uint32_t blocksPerCommand = BlocksPerCommand(capacity);
    ProgressBar progress(std::uint64_t{extent.count} * capacity.blockLength);
    std::deque<Extent> pieces;  // outstanding, oldest first
    Extent rest = extent;
    while (rest.count != 0 || !pieces.empty()) {
        while (rest.count != 0 && pieces.size() < outstanding) {
            const Extent piece{rest.first, std::min(rest.count, blocksPerCommand)};
            Start(start, piece);
            pieces.push_back(piece);
            rest = {rest.first + piece.count, rest.count - piece.count};
        }
        const Extent piece = pieces.front();
        finished(piece, Finish(transfers, piece));
        pieces.pop_front();
        const std::uint64_t blocksDone = piece.first + piece.count - extent.first;
        progress.Show(blocksDone * capacity.blockLength);
    }
}
