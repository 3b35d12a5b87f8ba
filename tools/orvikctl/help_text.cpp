#include "help_text.h"

#include <algorithm>
#include <cstddef>
#include <sstream>

#include <windows.h>

#include "application.h"
#include "exit_code.h"
#include "paths.h"
#include "windows/utf.h"

namespace {

constexpr std::size_t kLineLength = 80;

/// "  name   text", with the lines of the text below each other.
std::string Entry(const std::string& name, std::size_t column, const std::string& text) {
    std::string entry = "  " + name;
    entry.resize(std::max(column, entry.size() + 1), ' ');
    std::size_t length = entry.size();
    std::istringstream words(text);
    bool first = true;
    for (std::string word; words >> word; first = false) {
        if (!first && length + 1 + word.size() > kLineLength) {
            entry += "\n" + std::string(column, ' ');
            length = column;
        } else if (!first) {
            entry += ' ';
            ++length;
        }
        entry += word;
        length += word.size();
    }
    return entry + "\n";
}

/// The page beside this program, where the installer puts it. Empty if it is not there.
std::wstring InstalledPage() {
    const std::wstring page = (OwnFolder() / L"docs" / L"orvikctl.md").native();
    return ::GetFileAttributesW(page.c_str()) == INVALID_FILE_ATTRIBUTES ? L"" : page;
}

}  // namespace

std::string FooterOf(const CLI::App& app) {
    std::string text = "Options of every command:\n";
    for (const CLI::Option* const option :
         app.get_options([](const CLI::Option* each) { return each->get_group().empty(); }))
        text += Entry("--" + option->get_lnames().front(), 22, option->get_description());
    text += "\nExit codes:\n";
    for (const ExitCodeMeaning& line : ExitCodeTable())
        text += Entry(std::to_string(static_cast<int>(line.code)), 6, line.meaning);
    text += "\nThe options of all commands: orvikctl help --all";
    const std::wstring page = InstalledPage();
    if (!page.empty())
        text += "\nThe manual: " + ToUtf8(page);
    return text;
}

std::string HelpOf(const CLI::App& app) {
    return app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal);
}

std::string WholeHelp(const CLI::App& app) {
    std::string text = HelpOf(app);
    const std::string footer = app.get_footer();
    for (const CLI::App* const command : CommandsOf(app)) {
        std::string help = command->help(app.get_name());
        // The end that all have is in the application's own help.
        const std::size_t end = help.rfind(footer);
        if (end != std::string::npos)
            help.erase(end);
        text += "\n" + std::string(kLineLength, '-') + "\n" + app.get_name() + " " +
                command->get_name() + "\n\n" + help;
    }
    return text;
}
