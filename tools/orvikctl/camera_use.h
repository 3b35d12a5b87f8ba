#pragma once

#include <functional>

#include "arguments.h"
#include "orvik/client.h"
#include "transfers.h"

/// Connects, chooses the camera and calls `use`, whose commands go to that camera.
/// Throws what `use` throws, but for a command that the camera refused what ThrowRefusal() throws.
void UseCamera(const Settings& settings, const CameraOptions& options,
               const std::function<void(Transfers& transfers, orvik::CameraId camera)>& use);
