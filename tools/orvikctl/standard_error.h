// Standard error: what orvikctl has to say, beside the data on standard output.
#pragma once

#include <string>

/// True if someone may be looking: standard error is a console.
bool StandardErrorIsTerminal() noexcept;

/// Writes a text in UTF-8, as it is; readable on a console of any code page.
void Say(const std::string& text) noexcept;
