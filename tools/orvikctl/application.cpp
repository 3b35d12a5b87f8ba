#include "application.h"

#include <algorithm>
#include <cctype>
#include <initializer_list>
#include <numeric>
#include <utility>

#include "commands.h"
#include "exit_code.h"
#include "help_text.h"
#include "streams.h"

namespace {

/// The number of letters that must be inserted, deleted or replaced.
std::size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row.back();
}

/// The first word that is no option: the command's name. Empty if there is none. No option with a
/// value can stand before it.
std::string CommandIn(const std::vector<std::string>& reversedArguments) {
    const auto word =
        std::find_if(reversedArguments.rbegin(), reversedArguments.rend(),
                     [](const std::string& argument) { return !argument.starts_with('-'); });
    return word == reversedArguments.rend() ? "" : *word;
}

bool Has(const std::vector<std::string>& arguments, std::initializer_list<const char*> words) {
    return std::find_first_of(arguments.begin(), arguments.end(), words.begin(), words.end()) !=
           arguments.end();
}

bool IsNumber(const std::string& word) {
    return std::all_of(word.begin(), word.end(), [](unsigned char c) { return std::isdigit(c); });
}

std::string WordsForExtra(const CLI::App& app) {
    const std::vector<std::string> extras = app.remaining(true);
    if (extras.empty())
        return "an argument is not expected";
    const std::string& extra = extras.front();
    if (extra.starts_with('-'))
        return "there is no option " + extra;
    std::string text = "the argument \"" + extra + "\" is not expected";
    const auto commands = app.get_subcommands();
    const bool takesCamera =
        !commands.empty() && commands.front()->get_option_no_throw("--camera") != nullptr;
    if (takesCamera && IsNumber(extra))
        text += ". If it is the number of a camera, write --camera " + extra;
    return text;
}

std::string WordsFor(const CLI::ParseError& error, const CLI::App& app) {
    if (dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr)
        return WordsForExtra(app);
    std::string text = error.what();
    if (dynamic_cast<const CLI::ExcludesError*>(&error) != nullptr) {
        const std::string excludes = " excludes ";
        const std::size_t place = text.find(excludes);
        if (place != std::string::npos)
            text.replace(place, excludes.size(), " cannot be combined with ");
        return text;
    }
    // "--output: 1 required FILE missing"
    const std::string before = ": 1 required ";
    const std::string after = " missing";
    const std::size_t start = text.find(before);
    if (start != std::string::npos && text.ends_with(after))
        return text.substr(0, start) + " needs a value, " +
               text.substr(start + before.size(),
                           text.size() - after.size() - start - before.size());
    return text;
}

}  // namespace

std::unique_ptr<CLI::App> NewApplication(Settings& settings) {
    auto app = std::make_unique<CLI::App>(
        "Shows whether OrvikService works, and sends SCSI commands to its cameras.", "orvikctl");
    app->get_formatter()->label("SUBCOMMAND", "COMMAND");
    app->get_formatter()->label("Positionals", "Arguments");
    app->allow_windows_style_options(false);  // a path may begin with a slash
    app->fallthrough();                       // --json may stand before or after the command
    app->require_subcommand(1);
    // Without a group, because the footer describes them, also for each command.
    app->add_flag("--json", settings.json, "Print JSON, also for errors")->group("");
    app->add_flag("!--no-server-check", settings.checkServer,
                  "Connect even if the pipe is not served by the installed service, for example "
                  "to a service that runs in a console")
        ->group("");
    app->set_version_flag("--version", "", "Print the version of this program");
    app->footer(FooterOf(*app));

    AddStatus(*app, settings);
    AddList(*app, settings);
    AddWatch(*app, settings);
    AddPing(*app, settings);
    AddInquiry(*app, settings);
    AddRead(*app, settings);
    AddWrite(*app, settings);
    AddRaw(*app, settings);
    AddReport(*app, settings);
    AddVersion(*app, settings);
    AddHelp(*app);
    AddCompletion(*app);
    return app;
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& app) {
    return app.get_subcommands(
        [](const CLI::App* command) { return !command->get_name().empty(); });
}

const CLI::App* FindCommand(const CLI::App& app, const std::string& name) {
    const std::vector<const CLI::App*> commands = CommandsOf(app);
    const auto found =
        std::find_if(commands.begin(), commands.end(),
                     [&name](const CLI::App* command) { return command->get_name() == name; });
    return found == commands.end() ? nullptr : *found;
}

UsageError UnknownCommand(const CLI::App& app, const std::string& word) {
    const std::vector<const CLI::App*> commands = CommandsOf(app);
    const auto nearest = std::min_element(
        commands.begin(), commands.end(), [&word](const CLI::App* a, const CLI::App* b) {
            return Distance(word, a->get_name()) < Distance(word, b->get_name());
        });
    return UsageError("there is no command \"" + word + "\"; the most similar one is \"" +
                      (*nearest)->get_name() + "\"");
}

std::string UsageHint(const CLI::App& app, const std::vector<std::string>& reversedArguments) {
    const std::string word = CommandIn(reversedArguments);
    return FindCommand(app, word) == nullptr ? "Try orvikctl --help"
                                             : "Try orvikctl " + word + " --help";
}

void Run(CLI::App& app, const Settings& settings, std::vector<std::string> reversedArguments) {
    const std::string word = CommandIn(reversedArguments);
    if (word.empty() && !Has(reversedArguments, {"-h", "--help", "--version"}))
        throw UsageError("a command is missing");
    if (!word.empty() && FindCommand(app, word) == nullptr)
        throw UnknownCommand(app, word);
    try {
        app.parse(std::move(reversedArguments));  // which calls the command
    } catch (const CLI::CallForHelp&) {
        const auto named = app.get_subcommands();
        Print(named.empty() ? app.help() : named.front()->help(app.get_name()));
    } catch (const CLI::CallForVersion&) {
        PrintVersion(settings);
    } catch (const CLI::ParseError& error) {
        throw UsageError(WordsFor(error, app));
    }
}
