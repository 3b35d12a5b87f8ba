#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "arguments.h"
#include "exit_code.h"
#include "orvik/client.h"

/// Sense data of a camera.
struct SenseData {
    std::optional<orvik::Sense> sense;  // none if the bytes cannot be decoded
    std::vector<std::byte> bytes;
};

/// The camera refused a command.
class Refusal : public Failure {
public:
    Refusal(const std::string& text, std::optional<SenseData> senseData)
        : Failure(ExitCode::kRefused, text),
          sense(std::move(senseData)) {}

    /// None if the camera was not asked, or did not answer.
    const std::optional<SenseData>& Sense() const noexcept { return sense; }

private:
    std::optional<SenseData> sense;
};

/// Whether a camera that refused a command is no longer present, or not within one second: the
/// service can report it late. False also if the service cannot be asked.
/// Throws Failure with ExitCode::kCancelled on Ctrl-C.
bool HasGone(const Settings& settings, orvik::CameraId camera);

/// The error of a command for such a camera.
orvik::Error CameraGone(orvik::CameraId camera);

/// Finds out why `camera` refused a command, and throws the result: Refusal with the sense data in
/// words, orvik::Error of the kind kCameraGone if the camera is no longer present, or Failure with
/// ExitCode::kCancelled on Ctrl-C. `refused` is the error that the command ended with.
[[noreturn]] void ThrowRefusal(const Settings& settings, const CameraOptions& options,
                               orvik::CameraId camera, const orvik::Error& refused);
