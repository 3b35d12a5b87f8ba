// Used by `read` and `write`: transfers many blocks with several commands outstanding at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "orvik/client.h"
#include "transfers.h"

/// The arguments that both have.
struct BlockOptions {
    std::optional<orvik::CameraId> camera;
    std::uint32_t first = 0;
    std::uint32_t outstanding = 4;
    std::chrono::milliseconds timeout = orvik::kTransferTimeout;
};

void AddBlockOptions(CLI::App& command, BlockOptions& options);

/// Consecutive blocks.
struct Extent {
    std::uint32_t first;
    std::uint32_t count;
};

/// "3 blocks starting at block 7"
std::string Words(const Extent& extent);

/// Prints what was transferred. `done` is "read" or "wrote".
void Report(const Settings& settings, const char* done, orvik::CameraId camera,
            const Extent& extent, const orvik::Capacity& capacity);

/// Reads the capacity from the camera.
orvik::Capacity ReadCapacity(Transfers& transfers);

/// `count` blocks starting at block `first`; without a count, all blocks up to the last.
/// Throws Failure if the camera doesn't have them or if READ(6) cannot address them. Its message
/// names where the count comes from: `countName`.
Extent ChooseExtent(const orvik::Capacity& capacity, std::uint32_t first,
                    std::optional<std::uint64_t> count, const char* countName);

/// Transfers an extent in pieces, in order, and shows the progress. `start` starts the command for
/// a piece; `finished` is called with the data that the command returned.
/// Throws Failure, and what `transfers`, `start` and `finished` throw.
void Carry(Transfers& transfers, const orvik::Capacity& capacity, const Extent& extent,
           std::uint32_t outstanding, const std::function<void(const Extent& piece)>& start,
           const std::function<void(const Extent& piece, std::vector<std::byte> data)>& finished);
