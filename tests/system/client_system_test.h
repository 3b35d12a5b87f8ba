// What the tests of the client library with the real service share.
#pragma once

#include <chrono>

#include <gtest/gtest.h>
#include <windows.h>

#include "orvik/client.h"
#include "support/deadline.h"
#include "support/plugged_camera.h"
#include "suspended_process.h"
#include "system_test.h"

namespace system_test {

/// For a service that runs in the foreground, which the service control manager does not know.
inline orvik::ConnectOptions Foreground(std::chrono::milliseconds timeout = kDeadline) {
    orvik::ConnectOptions options;
    options.timeout = timeout;
    options.checkServer = false;
    return options;
}

/// A client of that service.
class Client : public orvik::Client {
public:
    explicit Client(std::chrono::milliseconds timeout = kDeadline)
        : orvik::Client(Foreground(timeout)) {}
    explicit Client(const orvik::ConnectOptions& options) : orvik::Client(options) {}
};

/// Options of a client that waits as long as needed for the report that a camera has gone.
inline orvik::ConnectOptions WaitingForReports() {
    orvik::ConnectOptions options = Foreground();
    options.goneWait = kDeadline;
    return options;
}

/// The service in the foreground, with one camera.
class ClientTest : public SystemTest {
protected:
    PluggedCamera camera{bus};
    RunningService service;
};

/// Waits until a client has connected to the only free instance of the pipe.
inline void WaitUntilNoInstanceIsFree() {
    const Deadline deadline;
    while (::WaitNamedPipeW(kCameraPipeName, 1)) {
        ASSERT_FALSE(deadline.Over());
        ::Sleep(1);  // no event reports it
    }
}

}  // namespace system_test
