#pragma once

#include <cstdint>
#include <string>

#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {

/// Waits until the running service hears of devices that come and go. No client is connected, and
/// the service knows the cameras 1 to `present`. Returns the identifier of the camera that is
/// plugged next.
std::uint32_t WaitUntilServiceHears(vcam::Bus& bus, std::uint32_t present);

/// The service, in both run modes, once it hears of devices that come and go. No client is
/// connected, and no camera plugged.
class WatchingTest : public SystemTest, public testing::WithParamInterface<RunMode> {
protected:
    /// `path` is that of the program that is the service.
    explicit WatchingTest(const std::wstring& path = ProgramPath(L"OrvikService.exe"));

    /// Receives the messages of a number of cameras that have been plugged, from the next
    /// identifier on.
    void ExpectAttached(RawClient& client, std::uint32_t count = 1);

    /// Leaves as a client may: after an answer from a camera, which must be there.
    static void Leave(RawClient& client, std::uint32_t cameraId);

    RunningService service;
    std::uint32_t nextId;  // of the camera that is plugged next
};

/// Runs the tests of a suite that is derived from WatchingTest in both modes.
#define ORVIK_IN_BOTH_MODES(suite) \
    INSTANTIATE_TEST_SUITE_P(      \
        Modes, suite, testing::Values(RunMode::kForeground, RunMode::kServiceManager), NameOf)

}  // namespace system_test
