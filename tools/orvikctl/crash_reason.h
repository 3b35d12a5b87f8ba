// What a dump says about a crash: of which program it is, and why the process ended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include <windows.h>

#include "json.h"

/// Larger dumps are not read. Those of the service have less than a tenth of this.
constexpr std::uint64_t kDumpSizeLimit = std::uint64_t{256} * 1024 * 1024;

struct CrashReason {
    FILETIME time;                    // when the dump was written
    DWORD exceptionCode;              // of the exception that ended the process
    std::optional<std::string> text;  // UTF-8: of the C++ exception that ended the service's run

    /// "Bad camera in request.", or "access violation (exception 0xc0000005)".
    std::string Words() const;
};

/// `dump` is all of a dump. Its content is not trusted. Throws Failure if it is no dump of a crash,
/// or is incomplete.
CrashReason CrashReasonOf(std::span<std::byte> dump);

/// Throws Failure, whose text names the file, if that cannot be read.
CrashReason CrashReasonOf(const std::filesystem::path& dump);

/// The file name of the program that crashed. Empty if it cannot be read: the dump is damaged,
/// cannot be opened, or does not have the program in its first 4 MiB.
std::wstring ProgramOf(std::span<std::byte> dump);

/// Reads no more than those 4 MiB. Throws Failure with ExitCode::kCancelled on Ctrl-C.
std::wstring ProgramOf(const std::filesystem::path& dump);

/// An object with the keys `time`, `exception_code` and `text`, which may be null.
Json JsonOf(const CrashReason& reason);
