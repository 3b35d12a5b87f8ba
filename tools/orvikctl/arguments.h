// Arguments that several commands have.
#pragma once

#include <charconv>
#include <chrono>
#include <concepts>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>

#include "exit_code.h"
#include "orvik/client.h"

/// The options of every command.
struct Settings {
    bool json = false;
    bool checkServer = true;
};

/// Writes a message of a command to standard error. With --json it writes nothing, because standard
/// error then has JSON only.
void Inform(const Settings& settings, const std::string& message);

/// Reads a whole text as a decimal number. Empty if it is not one from `least` to `most`.
/// (CLI11 by itself takes 010 for 8.)
template <std::integral Number>
std::optional<Number> ParseDecimal(const std::string& text, Number least, Number most) {
    Number number{};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || rest != end || number < least || number > most)
        return std::nullopt;
    return number;
}

/// For CLI::App::add_option_function<std::string>(): stores a decimal number in `target`, which
/// must outlive the parsing. `name` is the option's, for the text of the UsageError that it throws.
template <class Number, class Target>
std::function<void(const std::string&)> Decimal(const char* name, Target& target, Number least = 0,
                                                Number most = std::numeric_limits<Number>::max()) {
    return [name, &target, least, most](const std::string& text) {
        const std::optional<Number> number = ParseDecimal(text, least, most);
        if (!number)
            throw UsageError(std::string(name) + " must be a number from " + std::to_string(least) +
                             " to " + std::to_string(most) + ", not \"" + text + "\"");
        target = *number;
    };
}

/// Adds -t, the time limit for the camera's answer to one command. Its default is the value that
/// `timeout` has now.
CLI::Option* AddTimeout(CLI::App& command, std::chrono::milliseconds& timeout);

/// The options of each command that sends SCSI commands to one camera.
struct CameraOptions {
    std::optional<orvik::CameraId> camera;  // none: the only one present
    std::chrono::milliseconds timeout = orvik::kTransferTimeout;
    bool askForSense = true;  // after a refusal
};

void AddCameraOptions(CLI::App& command, CameraOptions& options);

/// As Decimal(), for a number of seconds with or without a fraction.
std::function<void(const std::string&)> Seconds(const char* name,
                                                std::chrono::milliseconds& target);

/// The path of the file that an argument names.
std::filesystem::path PathOf(const std::string& utf8);

/// Throws orvik::Error, and Failure with ExitCode::kCancelled on Ctrl-C.
orvik::Client Connect(const Settings& settings);

/// The duration of a round trip to the service that touches no camera, rounded to microseconds.
/// Throws orvik::Error, and Failure with ExitCode::kCancelled on Ctrl-C.
double MillisecondsOfRoundTrip(orvik::Client& client);
