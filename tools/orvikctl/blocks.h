// Used by `read` and `write`: transfers many blocks with several commands outstanding at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "arguments.h"
#include "input_file.h"
#include "orvik/client.h"
#include "progress.h"
#include "transfers.h"

/// The options that both have.
struct BlockOptions : CameraOptions {
    std::uint32_t first = 0;
    std::uint32_t outstanding = 4;
    ProgressKind progress = ProgressKind::kBar;
};

void AddBlockOptions(CLI::App& command, BlockOptions& options);

/// Consecutive blocks.
struct Extent {
    std::uint32_t first;
    std::uint32_t count;
};

/// "3 blocks starting at block 7"
std::string Words(const Extent& extent);

/// What a command has done, for the user.
struct BlockReport {
    const char* done;  // "read", "wrote" or "compared"
    orvik::CameraId camera;
    Extent extent;
    std::uint32_t blockLength;
    std::chrono::duration<double> time;
    std::string ending{};  // of the message
};

void Print(const Settings& settings, const BlockReport& report);

/// Reads the capacity from the camera.
orvik::Capacity ReadCapacity(Transfers& transfers);

/// `count` blocks starting at block `first`; without a count, all blocks up to the last.
/// Throws Failure if the camera doesn't have them or if READ(6) cannot address them. Its message
/// names where the count comes from: `countName`.
Extent ChooseExtent(const orvik::Capacity& capacity, std::uint32_t first,
                    std::optional<std::uint64_t> count, const char* countName);

/// As many blocks as a file has, starting at block `first`. Throws Failure as above, and if the
/// file has none, or not whole blocks.
Extent ChooseExtent(const orvik::Capacity& capacity, std::uint32_t first, const InputFile& file);

/// Transfers an extent in pieces, in order, and shows the progress of `step` (see NewProgress()).
/// `start` starts the command for a piece; `finished` is called with the data that the command
/// returned.
/// Throws Failure, and what `transfers`, `start` and `finished` throw.
void Carry(Transfers& transfers, const orvik::Capacity& capacity, const Extent& extent,
           const BlockOptions& options, const char* step,
           const std::function<void(const Extent& piece)>& start,
           const std::function<void(const Extent& piece, std::vector<std::byte> data)>& finished);

/// Reads an extent with Carry() and calls `received` with the data of each piece.
/// Throws Failure if the camera returns less data than the blocks have.
void ReadBlocks(
    Transfers& transfers, const orvik::Capacity& capacity, const Extent& extent,
    const BlockOptions& options, const char* step,
    const std::function<void(const Extent& piece, std::span<const std::byte> data)>& received);
