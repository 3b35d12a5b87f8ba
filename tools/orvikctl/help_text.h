#pragma once

#include <string>

#include <CLI/CLI.hpp>

/// The end of the help of the application and of each command: the options of every command, the
/// exit codes, and where to read more. `app` has its own options already.
std::string FooterOf(const CLI::App& app);

/// The help of the application. (app.help() is that of the command that has been parsed.)
std::string HelpOf(const CLI::App& app);

/// The help of the application and of every command.
std::string WholeHelp(const CLI::App& app);
