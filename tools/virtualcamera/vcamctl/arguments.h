// Arguments that several commands have.
#pragma once

#include <string>

#include <windows.h>

#include <CLI/CLI.hpp>

#include "virtual_camera.h"

/// Adds the argument for the id of a camera.
CLI::Option* AddCamera(CLI::App& command, vcam::CameraId& id);

/// The interface class that --class names. Throws std::runtime_error.
GUID ParseClass(const std::string& name);

/// As --class takes it.
std::string ClassName(const GUID& guid);
