#pragma once

#include <gtest/gtest.h>

#include "running_service.h"
#include "virtual_camera.h"

namespace system_test {

/// The fixture of system tests that need no camera: begins with no service.
class ServiceTest : public testing::Test {
protected:
    ServiceTest() { EndLeftovers(); }
};

/// The fixture of all other system tests: begins with no service, and no camera plugged. Needs the
/// virtual camera's driver.
class SystemTest : public ServiceTest {
protected:
    SystemTest() { bus.UnplugAll(); }

    vcam::Bus bus;
};

}  // namespace system_test
