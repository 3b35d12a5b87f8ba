#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

using Bytes = std::vector<std::byte>;

/// `size` bytes without a period that would hide a displacement; each `seed` gives other ones.
Bytes Pattern(std::size_t size, std::uint32_t seed = 0);

/// One after the other.
Bytes operator+(std::span<const std::byte> first, std::span<const std::byte> second);
