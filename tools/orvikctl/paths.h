#pragma once

#include <filesystem>
#include <string>

/// The path from the root on. Not std::filesystem::absolute(): GCC's damages paths that begin with
/// "\\?\". Throws SystemFailure.
std::wstring FullPath(const std::filesystem::path& path);

/// The folder that this program is in. Throws SystemFailure.
std::filesystem::path OwnFolder();
