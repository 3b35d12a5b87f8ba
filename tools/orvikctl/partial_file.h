#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <span>

#include <windows.h>

#include "exit_code.h"
#include "windows/unique_handle.h"

/// An operation on a file failed.
class FileError : public SystemFailure {
public:
    /// The message is `text`, the file's path and the system's words for `systemCode`.
    FileError(const char* text, const std::filesystem::path& file,
              DWORD systemCode = ::GetLastError());
};

/// Whether the path means the device NUL, which takes everything and keeps nothing.
bool IsNullDevice(const std::filesystem::path& path);

/// A file that appears under its name only when it is complete. Until then it is in the same folder
/// under a name that ends in ".part", and an existing target is unchanged. No other program can
/// open it meanwhile.
class PartialFile {
public:
    /// Throws Failure, also if the target cannot be a file later: a folder, a device, or a file
    /// that is read-only.
    explicit PartialFile(const std::filesystem::path& targetFile);

    /// Deletes the partial file, unless Commit() has found it complete.
    ~PartialFile();

    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    /// Throws FileError if the disk is known to have no space for `bytes` more.
    void RequireSpace(std::uint64_t bytes) const;

    /// Appends. Throws FileError.
    void Write(std::span<const std::byte> bytes);

    /// Declares the file complete: replaces the target. A target that another program has open is
    /// tried again for two seconds, or until Ctrl-C. Throws FileError. If the target could not be
    /// replaced, the complete file keeps its partial name, which the message says.
    void Commit();

private:
    DWORD Rename() const;

    std::filesystem::path target;
    std::filesystem::path partial;
    UniqueHandle file;
    bool complete = false;
};
