#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "windows/unique_handle.h"

/// A file to read from. No other process can write to it while it is open.
class InputFile {
public:
    /// Throws FileError.
    explicit InputFile(const std::filesystem::path& file);

    /// Standard input.
    InputFile();

    /// Its path, or "standard input", for messages. UTF-8.
    std::string Name() const;

    /// In bytes. Throws FileError.
    std::uint64_t Size() const;

    /// The next `length` bytes, or fewer if the file ends first. Throws FileError, and Failure with
    /// ExitCode::kCancelled on Ctrl-C.
    std::vector<std::byte> Read(std::size_t length);

private:
    std::filesystem::path path;  // for messages
    UniqueHandle opened;         // empty if it is standard input
    HANDLE file;
};
