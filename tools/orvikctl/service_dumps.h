// The dumps that the service has written of itself.
#pragma once

#include <filesystem>
#include <vector>

#include <windows.h>

struct Dump {
    std::filesystem::path name;
    FILETIME written;
};

/// The newest first. Throws Failure if the folder cannot be read.
std::vector<Dump> DumpsIn(const std::filesystem::path& folder);
