#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "arguments.h"
#include "partial_file.h"

/// Where received bytes go: to a file that appears under its name when it is complete, to standard
/// output ("-"), or nowhere ("NUL").
class Output {
public:
    /// Checks the place as far as possible before anything is received. Throws Failure.
    Output(const Settings& settings, const std::string& argument);

    bool IsNowhere() const noexcept { return place == Place::kNowhere; }

    /// Throws Failure if the disk has no space for `bytes` more.
    void RequireSpace(std::uint64_t bytes) const;

    void Write(std::span<const std::byte> bytes);

    /// All bytes have been written: gives the file its name. Throws Failure.
    void Commit();

private:
    enum class Place { kFile, kStandardOutput, kNowhere };

    static Place PlaceOf(const std::string& argument);

    Place place;
    std::optional<PartialFile> file;
};
