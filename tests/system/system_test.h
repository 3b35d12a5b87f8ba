#pragma once

#include <gtest/gtest.h>

#include "running_service.h"
#include "virtual_camera.h"

namespace system_test {

/// The fixture of all system tests: begins with no service, and no camera plugged.
class SystemTest : public testing::Test {
protected:
    SystemTest() {
        EndLeftovers();
        bus.UnplugAll();
    }

    vcam::Bus bus;
};

}  // namespace system_test
