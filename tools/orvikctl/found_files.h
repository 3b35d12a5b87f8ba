#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include <windows.h>

/// The files and folders in `folder` whose names match `pattern`, a pattern of FindFirstFileW.
/// Throws FileError with `failure` as its text if the folder cannot be read.
std::vector<WIN32_FIND_DATAW> FindFiles(const std::filesystem::path& folder, const wchar_t* pattern,
                                        const char* failure);

/// In bytes.
inline std::uint64_t SizeOf(const WIN32_FIND_DATAW& file) noexcept {
    return (std::uint64_t{file.nFileSizeHigh} << 32) | file.nFileSizeLow;
}
