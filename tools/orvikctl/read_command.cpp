#include "read_command.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <string>
#include <vector>

#include <windows.h>

#include "exit_code.h"
#include "partial_file.h"
#include "progress_bar.h"
#include "standard_error.h"

namespace {

/// The camera has the next command at hand when it is done with one.
constexpr std::size_t kOutstanding = 4;

std::atomic<bool> cancelled{false};

/// Called by the system on a thread of its own. The first Ctrl-C asks, the next one ends the
/// program, in case it is waiting for a camera that does not answer.
BOOL WINAPI OnConsoleEvent(DWORD) {
    return !cancelled.exchange(true);
}

/// Blocks that lie side by side.
struct Extent {
    std::uint32_t first;
    std::uint32_t count;
};

std::string Words(const Extent& extent) {
    return std::to_string(extent.count) + " blocks from " + std::to_string(extent.first) + " on";
}

/// What is to be read, checked against what the camera has.
Extent Choose(const orvik::Capacity& capacity, const ReadOptions& options) {
    const std::string has = "the camera has " + std::to_string(capacity.blockCount) + " blocks, ";
    if (options.first >= capacity.blockCount)
        throw Failure(ExitCode::kFailure, has + "none has number " + std::to_string(options.first));
    const std::uint64_t rest = capacity.blockCount - options.first;
    const std::uint64_t count = options.blocks.value_or(rest);
    if (count > rest)
        throw Failure(ExitCode::kFailure, has + "too few for --first and --blocks");
    if (options.first + count > orvik::kRead6BlockLimit)
        throw Failure(ExitCode::kFailure, has + "only the first " +
                                              std::to_string(orvik::kRead6BlockLimit) +
                                              " can be read: use --blocks");
    return {options.first, static_cast<std::uint32_t>(count)};
}

/// The most blocks that one command can read.
std::uint32_t BlocksPerCommand(const orvik::Capacity& capacity) {
    const auto fitting = static_cast<std::uint32_t>(orvik::kTransferInLimit / capacity.blockLength);
    if (fitting == 0)
        throw Failure(ExitCode::kFailure, "the camera's blocks of " +
                                              std::to_string(capacity.blockLength) +
                                              " bytes are too long to be read");
    return std::min(fitting, orvik::kRead6CountLimit);
}

struct Command {
    Extent extent;
    orvik::RequestId request;
};

std::vector<std::byte> Finish(orvik::Client& client, const Command& command,
                              std::uint32_t blockLength) {
    std::vector<std::byte> data;
    try {
        data = client.Wait(command.request);
    } catch (const orvik::Error& error) {
        if (error.Kind() != orvik::ErrorKind::kRefused)
            throw;
        throw Failure(ExitCode::kRefused, "the camera failed to read " + Words(command.extent));
    }
    if (data.size() != std::size_t{command.extent.count} * blockLength)
        throw Failure(ExitCode::kTransport, "the camera returned " + std::to_string(data.size()) +
                                                " bytes for " + Words(command.extent));
    return data;
}

}  // namespace

void ReadBlocks(orvik::Client& client, orvik::CameraId camera, const ReadOptions& options) {
    const orvik::Capacity capacity =
        orvik::DecodeCapacity(client.TransferIn(camera, orvik::ReadCapacityCdb()));
    const Extent chosen = Choose(capacity, options);
    const std::uint32_t blocksPerCommand = BlocksPerCommand(capacity);
    const std::uint64_t bytesInAll = std::uint64_t{chosen.count} * capacity.blockLength;

    PartialFile file(options.output);
    ::SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
    {
        ProgressBar progress(bytesInAll);
        std::deque<Command> outstanding;
        Extent rest = chosen;
        std::uint64_t bytesDone = 0;
        while (bytesDone < bytesInAll) {
            while (rest.count != 0 && outstanding.size() < kOutstanding) {
                const Extent next{rest.first, std::min(rest.count, blocksPerCommand)};
                outstanding.push_back(
                    {next, client.SendTransferIn(camera, orvik::Read6Cdb(next.first, next.count))});
                rest = {rest.first + next.count, rest.count - next.count};
            }
            const std::vector<std::byte> data =
                Finish(client, outstanding.front(), capacity.blockLength);
            outstanding.pop_front();
            file.Write(data);
            bytesDone += data.size();
            progress.Show(bytesDone);
            if (cancelled)
                throw Failure(ExitCode::kCancelled, "cancelled");
        }
    }
    file.Commit();
    Say("read " + Words(chosen) + ", " + std::to_string(bytesInAll) + " bytes\n");
}
