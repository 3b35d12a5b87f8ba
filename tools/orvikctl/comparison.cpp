#include "comparison.h"

#include <algorithm>

#include "exit_code.h"
#include "streams.h"

void CompareBlocks(Transfers& transfers, const orvik::Capacity& capacity, const Extent& extent,
                   const BlockOptions& options, const char* step, InputFile& file) {
    ReadBlocks(transfers, capacity, extent, options, step,
               [&](const Extent& piece, std::span<const std::byte> onCamera) {
                   const std::vector<std::byte> inFile = file.ReadAll(onCamera.size());
                   const auto [first, second] =
                       std::mismatch(inFile.begin(), inFile.end(), onCamera.begin());
                   if (first == inFile.end())
                       return;
                   const auto offset = static_cast<std::uint64_t>(first - inFile.begin());
                   const std::uint64_t before =
                       std::uint64_t{piece.first - extent.first} * capacity.blockLength;
                   throw Failure(ExitCode::kFailure,
                                 file.Name() +
                                     " and the camera differ. The first difference: byte " +
                                     std::to_string(before + offset) + " of the file is " +
                                     Hex({&*first, 1}) + ", byte " +
                                     std::to_string(offset % capacity.blockLength) + " of block " +
                                     std::to_string(piece.first + offset / capacity.blockLength) +
                                     " of the camera is " + Hex({&*second, 1}));
               });
}
