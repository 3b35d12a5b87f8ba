#pragma once

#include <string>
#include <vector>

/// The arguments of this process in UTF-8, without its name, last one first: as CLI11 parses them.
/// The `argv` of main() has them in UTF-8 only from Windows 10 1903 on, where the manifest's code
/// page has an effect; before, characters outside the system's code page are lost.
/// Throws std::system_error.
std::vector<std::string> ReversedArguments();
