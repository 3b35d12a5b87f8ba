// The service's executable file. Each function throws Failure, whose text says why the fact cannot
// be determined.
#pragma once

#include <filesystem>
#include <string>

std::filesystem::path ServiceProgram();

/// The version in the file's resources, "4.0.4".
std::string ServiceVersion();
std::string VersionOf(const std::filesystem::path& file);
