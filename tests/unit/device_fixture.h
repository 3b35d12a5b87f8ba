#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/device.h"
#include "device/io_operation.h"
#include "in_process_service.h"

class DeviceTest : public InProcessService {
protected:
    void SetUp() override {
        InProcessService::SetUp();
        camera = Plug();
        opensBefore = bus.Counters(camera).opens;
        closesBefore = bus.Counters(camera).closes;
    }

    Device MakeDevice(std::uint32_t id = 7) {
        return Device(bus.InterfacePath(camera), id, port.Get());
    }

    std::uint64_t Opens() { return bus.Counters(camera).opens - opensBefore; }
    std::uint64_t Closes() { return bus.Counters(camera).closes - closesBefore; }

    static TransferRequest Request(std::uint32_t type, std::uint32_t length) {
        TransferRequest request{type, 0x11223344, 0x55667788, length + 16, {}};
        std::copy_n(Pattern(16, 9).begin(), 16, request.cdb.begin());
        return request;
    }

    /// Starts a transfer and dispatches its packet; returns the block as the driver got it.
    Bytes Send(Device& device, const TransferRequest& request, const Bytes& data,
               std::int32_t length) {
        bool done = false;
        auto* const operation = new IoOperation([&done](IoOperation* finished) {
            done = true;
            DiscardOperation(finished);
        });
        device.Transfer(operation, &request, data.data(), length);
        port.DispatchUntil("the transfer", [&done] { return done; });
        const vcam::Request seen = bus.LastRequests(camera, 1).at(0);
        EXPECT_EQ(seen.inputLength, static_cast<std::uint32_t>(length) + 65);
        EXPECT_EQ(seen.outputLength, static_cast<std::uint32_t>(length) + 65);
        EXPECT_EQ(seen.block.size(), static_cast<std::size_t>(length) + 65);
        return seen.block;
    }

    vcam::CameraId camera = 0;
    std::uint64_t opensBefore = 0;
    std::uint64_t closesBefore = 0;
};
