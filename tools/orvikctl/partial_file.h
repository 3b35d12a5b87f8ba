#pragma once

#include <cstddef>
#include <filesystem>
#include <span>

#include <windows.h>

#include "exit_code.h"
#include "windows/unique_handle.h"

/// A file could not be made or written.
class FileError : public SystemFailure {
public:
    /// `systemCode` is that of the call that failed.
    FileError(const char* text, const std::filesystem::path& file,
              DWORD systemCode = ::GetLastError());
};

/// A file that gets its name only when it is complete. Until then it lies beside its target under
/// another name, which ends in ".part"; an existing target stays as it is.
class PartialFile {
public:
    /// Throws FileError.
    explicit PartialFile(const std::filesystem::path& targetFile);

    /// Removes what has been written, unless Commit() was called.
    ~PartialFile();

    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    /// Appends. Throws FileError.
    void Write(std::span<const std::byte> bytes);

    /// The file is complete: replaces the target. Throws FileError.
    void Commit();

private:
    std::filesystem::path target;
    std::filesystem::path partial;
    UniqueHandle file;
    bool committed = false;
};
