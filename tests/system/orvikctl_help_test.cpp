// orvikctl's help, and its errors in words and as JSON.

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "orvikctl_fixture.h"

namespace system_test {
namespace {

std::string Joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

/// The program's output, which must be all that it prints.
std::string OutputOf(const std::wstring& arguments) {
    const Result result = Orvikctl(arguments);
    EXPECT_EQ(result.exitCode, 0u) << result;
    EXPECT_EQ(result.errors, Lines{});
    return Joined(result.output);
}

std::string Page() {
    std::ifstream stream{std::filesystem::path(TestFolder() + L"\\orvikctl.md")};
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

/// The exit codes that a text lists, with their meanings. `line` matches the start of each.
std::map<int, std::string> ExitCodesIn(const std::string& text, const std::regex& line) {
    std::map<int, std::string> codes;
    for (std::sregex_iterator match(text.begin(), text.end(), line), end; match != end; ++match)
        codes[std::stoi((*match)[1])] = (*match)[2];
    return codes;
}

/// The options, such as "--camera", that a text has.
std::set<std::string> OptionsIn(const std::string& text) {
    static const std::regex kOption("--[a-z][a-z-]+");
    std::set<std::string> options;
    for (std::sregex_iterator match(text.begin(), text.end(), kOption), end; match != end; ++match)
        options.insert(match->str());
    return options;
}

TEST_F(OrvikctlTest, ExitCodesOfTheHelpAreThoseOfThePage) {
    // One line per code: continued lines of the help begin with six blanks.
    std::string help = OutputOf(L"--help");
    help = std::regex_replace(help, std::regex("\n {6}"), " ");
    const auto inHelp = ExitCodesIn(help, std::regex("\n  ([0-9]+) +([^\n]+)"));
    const std::string page = std::regex_replace(Page(), std::regex("`--camera`"), "--camera");
    const auto onPage = ExitCodesIn(page, std::regex(R"(\n\| ([0-9]+) \| ([^\n|]+) \|)"));
    EXPECT_EQ(inHelp.size(), 11u);
    EXPECT_EQ(inHelp, onPage);
}

TEST_F(OrvikctlTest, OptionsOfTheHelpAreThoseOfThePage) {
    const std::set<std::string> inHelp = OptionsIn(OutputOf(L"help --all"));
    std::set<std::string> onPage = OptionsIn(Page());
    onPage.erase("--outstanding");  // for measurements
    EXPECT_EQ(inHelp, onPage);
}

TEST_F(OrvikctlTest, HelpOfStandardStreamsWarnsOfPowerShellAsThePageDoes) {
    EXPECT_NE(Page().find("up to version 7.3"), std::string::npos);
    const auto expectHelp = [](const wchar_t* command, const std::string& text) {
        const std::string help = OutputOf(std::wstring(L"help ") + command);
        const std::string oneLine = std::regex_replace(help, std::regex("\\s+"), " ");
        EXPECT_NE(oneLine.find(text), std::string::npos) << help;
    };
    const std::string advice = "In PowerShell up to version 7.3 use a file: a pipeline ";
    expectHelp(L"read", advice + "or > damages binary data there");
    expectHelp(L"write", advice + "damages binary data there");
}

TEST_F(OrvikctlTest, CompletionKnowsTheCommandsAndOptionsOfTheHelp) {
    const std::string script = OutputOf(L"completion powershell");
    const std::set<std::string> inHelp = OptionsIn(OutputOf(L"help --all"));
    static const std::regex kOption("\n            '(--[a-z-]+)' = '");
    std::set<std::string> inScript;
    for (std::sregex_iterator match(script.begin(), script.end(), kOption), end; match != end;
         ++match)
        inScript.insert((*match)[1]);
    EXPECT_EQ(inScript, inHelp);
    const std::string commands = Joined(Orvikctl(L"help").output);
    static const std::regex kCommand("\n  ([a-z]+)  +[A-Z]");
    std::size_t count = 0;
    for (std::sregex_iterator match(commands.begin(), commands.end(), kCommand), end; match != end;
         ++match, ++count)
        EXPECT_NE(script.find("\n        '" + (*match)[1].str() + "' = [ordered]@{"),
                  std::string::npos)
            << (*match)[1];
    EXPECT_GE(count, 11u) << commands;
    // Apostrophes are doubled in literals, so their number is even in each line.
    std::istringstream lines(script);
    for (std::string line; std::getline(lines, line);)
        EXPECT_EQ(std::count(line.begin(), line.end(), '\'') % 2, 0) << line;
    EXPECT_EQ(std::count(script.begin(), script.end(), '{'),
              std::count(script.begin(), script.end(), '}'));
}

TEST_F(OrvikctlTest, HelpOfTheProgramOfACommandAndOfAll) {
    EXPECT_EQ(OutputOf(L"help"), OutputOf(L"--help"));
    EXPECT_EQ(OutputOf(L"help read"), OutputOf(L"read --help"));
    const std::string all = OutputOf(L"help --all");
    EXPECT_TRUE(all.starts_with(OutputOf(L"help")));
    for (const char* const command : {"list", "watch", "ping", "read", "raw", "completion"})
        EXPECT_NE(all.find(std::string("\norvikctl ") + command + "\n"), std::string::npos)
            << command;
    EXPECT_TRUE(Failed(Orvikctl(L"help lst"), 2,
                       "there is no command \"lst\"; the most similar one is \"list\""));
}

TEST_F(OrvikctlTest, UnknownWordsAreNamed) {
    EXPECT_TRUE(Failed(Orvikctl(L"sttaus"), 2,
                       "there is no command \"sttaus\"; the most similar one is \"status\""));
    EXPECT_TRUE(Failed(Orvikctl(L"--json-x list"), 2, "there is no option --json-x"));
    EXPECT_TRUE(Failed(Orvikctl(L"list --nonsense"), 2, "there is no option --nonsense"));
    EXPECT_TRUE(Failed(Orvikctl(L"list x"), 2, "the argument \"x\" is not expected"));
    EXPECT_TRUE(Failed(Orvikctl(L""), 2, "a command is missing"));
    EXPECT_TRUE(Failed(Orvikctl(L"read -o"), 2, "--output needs a value, FILE"));
    EXPECT_TRUE(Failed(Orvikctl(L"raw -n"), 2, "CDB is required"));
    EXPECT_TRUE(Failed(Orvikctl(L"raw 00"), 2,
                       "exactly one of --receive, --send and --no-data must be given, not 0"));
    EXPECT_TRUE(Failed(Orvikctl(L"completion bash"), 2, "SHELL must be powershell, not \"bash\""));
}

TEST_F(OrvikctlTest, ErrorsAreJsonWithTheOption) {
    const Json usage = ErrorOf(Orvikctl(L"lst --json"));
    EXPECT_EQ(usage,
              (Json{{"kind", "usage"},
                    {"text", "there is no command \"lst\"; the most similar one is \"list\""},
                    {"system_code", 0},
                    {"exit_code", 2}}));
    const Json absent = ErrorOf(Orvikctl(L"--json ping"));
    EXPECT_EQ(absent.at("kind"), "not installed");
    EXPECT_EQ(absent.at("system_code"), 1060);
    const Json file = ErrorOf(Orvikctl(L"write --json -i " + Quoted(L"none")));
    EXPECT_EQ(file.at("kind"), "system error");
    EXPECT_EQ(file.at("system_code"), 2);
}

TEST_F(OrvikctlTest, HintForAServiceInAConsole) {
    const RunningService service;
    const Result result = Orvikctl(L"ping");
    EXPECT_TRUE(Failed(result, 5, "process "));
    EXPECT_TRUE(result.errors.back().ends_with(
        ". If that process is OrvikService in a console, add --no-server-check"))
        << result;
    EXPECT_EQ(ErrorOf(Orvikctl(L"ping --json")).at("kind"), "wrong server");
}

/// As installed: the pages are in a folder beside the program.
TEST_F(OrvikctlTest, HelpEndsWithTheInstalledPage) {
    std::filesystem::copy_file(ProgramPath(L"orvikctl.exe"), folder / L"orvikctl.exe");
    const auto lastLine = [this](const wchar_t* arguments) {
        Program program((folder / L"orvikctl.exe").wstring(), arguments);
        EXPECT_EQ(program.WaitForEnd(), 0u);
        const Lines lines = program.Output().WaitForEnd();
        return lines.empty() ? "" : lines.back();
    };
    EXPECT_EQ(lastLine(L"--help"), "The options of all commands: orvikctl help --all");
    std::filesystem::create_directory(folder / L"docs");
    MakeFile(L"docs/orvikctl.md", Bytes(1));
    const std::string manual = "The manual: " + ToUtf8((folder / L"docs\\orvikctl.md").wstring());
    EXPECT_EQ(lastLine(L"--help"), manual);
    EXPECT_EQ(lastLine(L"read --help"), manual);
}

}  // namespace
}  // namespace system_test
