// The dumps in the folder to which the service writes its own. The folder is the temporary folder
// of LocalSystem, where other services with Breakpad leave dumps with the same kind of names.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>

struct Dump {
    std::filesystem::path name;
    FILETIME written;
    std::uint64_t size;
};

/// The newest first, of any program, without folders and links. Throws Failure if the folder cannot
/// be read.
std::vector<Dump> DumpsIn(const std::filesystem::path& folder);

/// True if `program`, the result of ProgramOf(), is not the service's. A dump whose program cannot
/// be read is taken for one of the service: a full disk cuts dumps off, and such a dump says at
/// least that there was a crash, and when.
bool IsOfAnotherProgram(const std::wstring& program);

/// The newest that is not of another program. Reads dumps until it is found. Throws Failure.
std::optional<Dump> NewestServiceDump(const std::filesystem::path& folder);
