// Arguments that several commands have.
#pragma once

#include <charconv>
#include <chrono>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <system_error>

#include <CLI/CLI.hpp>

#include "orvik/client.h"

/// What holds for every command.
struct Settings {
    bool json = false;
    bool checkServer = true;
};

/// For CLI::App::add_option_function<std::string>(): stores a decimal number in `target`, which
/// must outlive the parsing. (CLI11 by itself takes 010 for 8.)
template <class Number, class Target>
std::function<void(const std::string&)> Decimal(Target& target, Number least = 0,
                                                Number most = std::numeric_limits<Number>::max()) {
    return [&target, least, most](const std::string& text) {
        Number number{};
        const char* const end = text.data() + text.size();
        const auto [rest, error] = std::from_chars(text.data(), end, number);
        // Negated, because a NaN is neither above nor below anything.
        if (error != std::errc() || rest != end || !(number >= least && number <= most))
            throw CLI::ValidationError(text, "is no number, or too small or too large");
        target = number;
    };
}

/// Adds the argument CAMERA.
CLI::Option* AddCamera(CLI::App& command, std::optional<orvik::CameraId>& camera);

/// Adds -t, the time that a camera may take for one command.
CLI::Option* AddTimeout(CLI::App& command, std::chrono::milliseconds& timeout);

/// Stores seconds, with or without a fraction, in `target`, which must outlive the parsing.
std::function<void(const std::string&)> Seconds(std::chrono::milliseconds& target);

/// The file that an argument names.
std::filesystem::path PathOf(const std::string& utf8);

/// Throws orvik::Error, and Failure with ExitCode::kCancelled on Ctrl-C.
orvik::Client Connect(const Settings& settings);

/// What a request takes that asks no camera, to a thousandth.
/// Throws orvik::Error, and Failure with ExitCode::kCancelled on Ctrl-C.
double MillisecondsOfRoundTrip(orvik::Client& client);

/// The camera asked for, or the only one. Throws Failure if there is none or several.
orvik::CameraId ChooseCamera(const orvik::Client& client,
                             const std::optional<orvik::CameraId>& wanted);
