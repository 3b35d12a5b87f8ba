#pragma once

#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "arguments.h"

/// The command line: all commands and their options. `settings` must outlive it.
std::unique_ptr<CLI::App> NewApplication(Settings& settings);

/// The commands of the application, in the order of its help.
std::vector<const CLI::App*> CommandsOf(const CLI::App& app);

/// The command with this name, or null.
const CLI::App* FindCommand(const CLI::App& app, const std::string& name);

/// The error, to be thrown, for a word that is not the name of a command. Its text names the most
/// similar command.
UsageError UnknownCommand(const CLI::App& app, const std::string& word);

/// The line that follows an error of the arguments.
std::string UsageHint(const CLI::App& app, const std::vector<std::string>& reversedArguments);

/// Parses the arguments, last one first, and runs the command.
/// Throws UsageError for wrong arguments, and what the command throws.
void Run(CLI::App& app, const Settings& settings, std::vector<std::string> reversedArguments);
