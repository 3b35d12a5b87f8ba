#include <memory>
#include <string>
#include <vector>

#include "application.h"
#include "commands.h"
#include "exit_code.h"
#include "streams.h"

namespace {

/// A text as a PowerShell literal.
std::string Literal(const std::string& text) {
    std::string literal = "'";
    for (const char character : text) {
        literal += character;
        if (character == '\'')
            literal += '\'';
    }
    return literal + "'";
}

/// Options without a group are for measurements, except those of the application itself.
bool IsShown(const CLI::Option& option, bool ofApplication) {
    return !option.get_lnames().empty() && (ofApplication || !option.get_group().empty());
}

/// "@{ '--camera' = 'Number of the camera ...'; ... }"
std::string OptionsOf(const CLI::App& command, bool ofApplication) {
    std::string text = "[ordered]@{";
    for (const CLI::Option* const option : command.get_options({}))
        if (IsShown(*option, ofApplication))
            text += "\n            " + Literal("--" + option->get_lnames().front()) + " = " +
                    Literal(option->get_description());
    return text + "\n        }";
}

std::string PowerShellScript(const CLI::App& app) {
    std::string commands;
    std::string options;
    for (const CLI::App* const command : CommandsOf(app)) {
        commands += "        " + Literal(command->get_name()) + " = " +
                    Literal(command->get_description()) + "\n";
        options +=
            "        " + Literal(command->get_name()) + " = " + OptionsOf(*command, false) + "\n";
    }
    return R"(# PowerShell completion for orvikctl. To use it in each new PowerShell, add to your profile:
#     orvikctl completion powershell | Out-String | Invoke-Expression
Register-ArgumentCompleter -Native -CommandName orvikctl, orvikctl.exe -ScriptBlock {
    param($wordToComplete, $commandAst, $cursorPosition)
    $commands = [ordered]@{
)" + commands +
           R"(    }
    $generalOptions = )" +
           OptionsOf(app, true) + R"(
    $options = @{
)" + options +
           R"(    }
    $values = @{
        'help' = @($commands.Keys)
        'completion' = @('powershell')
        '--progress' = @('json')
    }

    $words = @($commandAst.CommandElements | Select-Object -Skip 1 |
        Where-Object { $_.Extent.EndOffset -lt $cursorPosition } | ForEach-Object { "$_" })
    $command = $words | Where-Object { -not $_.StartsWith('-') } | Select-Object -First 1
    $candidates = [ordered]@{}
    $last = if ($words.Count -gt 0) { $words[-1] } else { '' }
    if ($values.ContainsKey($last)) {
        foreach ($value in $values[$last]) { $candidates[$value] = $value }
    } elseif (-not $command) {
        foreach ($name in $commands.Keys) { $candidates[$name] = $commands[$name] }
    }
    if ($wordToComplete.StartsWith('-')) {
        if ($command -and $options.ContainsKey($command)) {
            foreach ($name in $options[$command].Keys) {
                $candidates[$name] = $options[$command][$name]
            }
        }
        foreach ($name in $generalOptions.Keys) { $candidates[$name] = $generalOptions[$name] }
    }
    foreach ($name in $candidates.Keys) {
        if ($name.StartsWith($wordToComplete)) {
            [System.Management.Automation.CompletionResult]::new(
                $name, $name, 'ParameterValue', $candidates[$name])
        }
    }
}
)";
}

}  // namespace

void AddCompletion(CLI::App& app) {
    auto* const command = app.add_subcommand(
        "completion", "Print a script that completes the arguments of orvikctl in a shell");
    auto shell = std::make_shared<std::string>();
    command->add_option("SHELL", *shell, "The shell: powershell")->type_name("")->required();
    command->callback([&app, shell] {
        if (*shell != "powershell")
            throw UsageError("SHELL must be powershell, not \"" + *shell + "\"");
        Print(PowerShellScript(app));
    });
}
