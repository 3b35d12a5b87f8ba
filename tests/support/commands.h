// Command blocks of the SCSI standard that the virtual camera knows, padded with zeros.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "bytes.h"
#include "device/transfer_request.h"

using Cdb = std::array<std::byte, kCdbFieldSize>;

Cdb TestUnitReady();
Cdb Inquiry(std::uint8_t allocationLength = 36);
Cdb Read6(std::uint32_t block, std::uint8_t blocks);  // 0 blocks are 256
Cdb Write6(std::uint32_t block, std::uint8_t blocks);

/// A WRITE(6) command, followed by the data that it writes: whole blocks.
Bytes Write6(std::uint32_t block, std::span<const std::byte> data);
