#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

#include "orvik/client.h"

struct ReadOptions {
    std::uint32_t first = 0;              ///< number of the first block
    std::optional<std::uint32_t> blocks;  ///< how many; none: all to the end
    std::filesystem::path output;
};

/// Reads blocks of a camera into a file, which appears only when all have come. Ctrl-C ends it.
/// Throws Failure and orvik::Error.
void ReadBlocks(orvik::Client& client, orvik::CameraId camera, const ReadOptions& options);
