#pragma once

#include <string>

/// Writes a UTF-8 text to standard output. Throws std::system_error.
void Print(const std::string& text);

/// Writes a UTF-8 text to standard error. A failure to do so is ignored.
void PrintError(const std::string& text);
