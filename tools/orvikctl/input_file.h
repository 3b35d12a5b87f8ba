#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <vector>

#include "windows/unique_handle.h"

/// A file to read from, which nobody can write meanwhile.
class InputFile {
public:
    /// Throws FileError.
    explicit InputFile(const std::filesystem::path& file);

    /// Standard input.
    InputFile();

    /// In bytes. Throws FileError.
    std::uint64_t Size() const;

    /// The next bytes: `length` of them, or fewer if it ends before. Throws FileError.
    std::vector<std::byte> Read(std::size_t length);

private:
    std::filesystem::path path;  // for texts
    UniqueHandle opened;         // empty if it is standard input
    HANDLE file;
};
