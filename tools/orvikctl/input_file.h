#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
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

    /// The file that an argument names; "-" is standard input, which is read into memory to its
    /// end, so that its size is known. Throws Failure.
    static InputFile Open(const std::string& argument);

    /// Its path, or "standard input", for messages. UTF-8.
    std::string Name() const;

    /// In bytes, of a file or of what Open() has read. Throws FileError.
    std::uint64_t Size() const;

    /// Begins again at the first byte. Throws FileError.
    void Rewind();

    /// The next `length` bytes, or fewer if the file ends first. Throws FileError, and Failure with
    /// ExitCode::kCancelled on Ctrl-C.
    std::vector<std::byte> Read(std::size_t length);

    /// The next `length` bytes. Throws also if the file ends first.
    std::vector<std::byte> ReadAll(std::size_t length);

private:
    void ReadIntoMemory();

    std::filesystem::path path;  // for messages
    UniqueHandle opened;         // empty if it is standard input
    HANDLE file;
    std::optional<std::vector<std::byte>> memory;  // all of standard input
    std::size_t position = 0;                      // in `memory`
};
