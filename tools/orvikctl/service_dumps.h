// The dumps that the service has written of itself.
#pragma once

#include <filesystem>
#include <optional>

#include <windows.h>

struct Dump {
    std::filesystem::path name;
    FILETIME written;
};

/// Empty if there is none. Throws Failure if the folder cannot be read.
std::optional<Dump> NewestDump(const std::filesystem::path& folder);
