// One function per command adds it to the command line. `settings` must outlive the parsing.
#pragma once

#include <CLI/CLI.hpp>

#include "arguments.h"

void AddStatus(CLI::App& app, const Settings& settings);
void AddList(CLI::App& app, const Settings& settings);
void AddWatch(CLI::App& app, const Settings& settings);
void AddPing(CLI::App& app, const Settings& settings);
void AddInquiry(CLI::App& app, const Settings& settings);
void AddRead(CLI::App& app, const Settings& settings);
void AddWrite(CLI::App& app, const Settings& settings);
void AddRaw(CLI::App& app, const Settings& settings);
void AddReport(CLI::App& app, const Settings& settings);
void AddVersion(CLI::App& app, const Settings& settings);
void AddHelp(CLI::App& app);
void AddCompletion(CLI::App& app);

/// The output of `version`.
void PrintVersion(const Settings& settings);
