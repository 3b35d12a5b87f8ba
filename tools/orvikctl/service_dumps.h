// The dumps that the service has written of itself.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include <windows.h>

struct Dump {
    std::filesystem::path name;
    FILETIME written;
    std::uint64_t size;
};

/// The newest first, without folders and links. Throws Failure if the folder cannot be read.
std::vector<Dump> DumpsIn(const std::filesystem::path& folder);
