// Arguments that several commands have.
#pragma once

#include <string>

#include <windows.h>

#include <CLI/CLI.hpp>

#include "virtual_camera.h"

/// For CLI::Option::check(). CLI::Range has the same task, but its message differs between the
/// versions of CLI11.
template <typename Number>
CLI::Validator NumberFrom(Number least, Number most) {
    const CLI::Range range(least, most);
    const std::string message =
        "must be a number from " + std::to_string(least) + " to " + std::to_string(most);
    return CLI::Validator(
        [range, message](std::string& text) { return range(text).empty() ? "" : message; },
        range.get_description());
}

/// Adds the argument for the id of a camera.
CLI::Option* AddCamera(CLI::App& command, vcam::CameraId& id);

/// The interface class that --class names. Throws std::runtime_error.
GUID ParseClass(const std::string& name);

/// As --class takes it.
std::string ClassName(const GUID& guid);
