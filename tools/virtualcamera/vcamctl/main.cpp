// vcamctl: the command line of the virtual cameras.

#include <cstdlib>
#include <exception>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>

#include "command_line.h"
#include "commands.h"
#include "output.h"
#include "windows/system_dll.h"

int main() {
    LoadDllsFromSystemFolderOnly();
    CLI::App app("Plugs, unplugs and controls virtual cameras for tests.", "vcamctl");
    app.require_subcommand(1);
    app.allow_windows_style_options(false);  // a path may begin with a slash
    AddInstall(app);
    AddUninstall(app);
    AddPlug(app);
    AddUnplug(app);
    AddList(app);
    AddBehave(app);
    AddRelease(app);
    AddRequests(app);
    AddLoad(app);
    AddSave(app);
    try {
        app.parse(ReversedArguments());  // which calls the command
        return EXIT_SUCCESS;
    } catch (const CLI::CallForHelp&) {
        const auto named = app.get_subcommands();
        Print(named.empty() ? app.help() : named.front()->help(app.get_name()));
        return EXIT_SUCCESS;
    } catch (const CLI::ParseError& error) {
        PrintError("vcamctl: " + std::string(error.what()) + "\nTry vcamctl --help\n");
    } catch (const std::system_error& error) {
        PrintError("vcamctl: " + std::string(error.what()) + " (error " +
                   std::to_string(error.code().value()) + ")\n");
    } catch (const std::exception& error) {
        PrintError("vcamctl: " + std::string(error.what()) + "\n");
    }
    return EXIT_FAILURE;
}
