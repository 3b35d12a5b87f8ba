// Files with the content of a camera's memory or with its descriptor. Paths are UTF-8. The
// functions throw std::system_error.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// The whole file, or the first bytes of one that is larger than the largest memory: still too many
/// for CheckFits().
std::vector<std::byte> ReadFile(const std::string& path);

/// Replaces an existing file.
void WriteFile(const std::string& path, const std::vector<std::byte>& bytes);

/// Throws std::runtime_error if `bytes`, the content of the file `path`, is larger than the memory
/// of a camera with `blockCount` blocks.
void CheckFits(const std::string& path, const std::vector<std::byte>& bytes,
               std::uint32_t blockCount);
