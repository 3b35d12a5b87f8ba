// Each function adds commands to the command line.
#pragma once

#include <CLI/CLI.hpp>

void AddInstall(CLI::App& app);
void AddUninstall(CLI::App& app);
void AddPlug(CLI::App& app);
void AddUnplug(CLI::App& app);
void AddList(CLI::App& app);
void AddBehave(CLI::App& app);
void AddRelease(CLI::App& app);
void AddRequests(CLI::App& app);
void AddLoad(CLI::App& app);
void AddSave(CLI::App& app);
