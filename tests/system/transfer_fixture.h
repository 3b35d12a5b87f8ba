#pragma once

#include <cstdint>

#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {

inline constexpr std::uint32_t kCamera = 1;  // the service's identifier of the first camera

/// The service in the foreground, with one camera.
class TransferTest : public SystemTest {
protected:
    RawClient Connect() {
        RawClient client;
        EXPECT_EQ(client.ReceiveMessage(), Attached(kCamera));
        return client;
    }

    PluggedCamera camera{bus};
    RunningService service;
};

}  // namespace system_test
