#include <memory>

#include "application.h"
#include "commands.h"
#include "help_text.h"
#include "streams.h"

namespace {

struct Options {
    std::string command;
    bool all = false;
};

void Help(const CLI::App& app, const Options& options) {
    if (options.all) {
        Print(WholeHelp(app));
        return;
    }
    if (options.command.empty()) {
        Print(HelpOf(app));
        return;
    }
    const CLI::App* const command = FindCommand(app, options.command);
    if (command == nullptr)
        throw UnknownCommand(app, options.command);
    Print(command->help(app.get_name()));
}

}  // namespace

void AddHelp(CLI::App& app) {
    auto* const command = app.add_subcommand("help", "Print this help, or the help of a command");
    auto options = std::make_shared<Options>();
    command->add_option("COMMAND", options->command, "Command to describe")->type_name("");
    command->add_flag("--all", options->all, "Print the help of all commands");
    command->callback([&app, options] { Help(app, *options); });
}
