// What `read` and `write` share: many blocks, carried by several commands at the same time.
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

/// The arguments of both.
struct BlockOptions {
    std::optional<orvik::CameraId> camera;
    std::uint32_t first = 0;
    std::uint32_t outstanding = 4;
    std::chrono::milliseconds timeout = orvik::kTransferTimeout;
};

void AddBlockOptions(CLI::App& command, BlockOptions& options);

/// Blocks that lie side by side.
struct Extent {
    std::uint32_t first;
    std::uint32_t count;
};

/// "3 blocks from 7 on"
std::string Words(const Extent& extent);

/// Says what has been done with an extent: `done` is "read" or "wrote".
void Report(const Settings& settings, const char* done, orvik::CameraId camera,
            const Extent& extent, const orvik::Capacity& capacity);

/// Asks the camera.
orvik::Capacity ReadCapacity(Transfers& transfers);

/// The blocks from `first` on, `count` of them or all to the end. Throws Failure if the camera
/// doesn't have them or no command can address them.
Extent ChooseExtent(const orvik::Capacity& capacity, std::uint32_t first,
                    std::optional<std::uint64_t> count);

/// Carries an extent in pieces, in order. `start` starts the command for a piece; `finished` gets
/// what it returned. Shows the progress.
/// Throws Failure, and what `transfers`, `start` and `finished` throw.
void Carry(Transfers& transfers, const orvik::Capacity& capacity, const Extent& extent,
           std::uint32_t outstanding, const std::function<void(const Extent& piece)>& start,
           const std::function<void(const Extent& piece, std::vector<std::byte> data)>& finished);
