#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include <gtest/gtest.h>

#include "in_process_service.h"

/// The server, a camera and one client, whose requests are answered one at a time.
class SessionTest : public InProcessService {
protected:
    void TearDown() override {
        client.reset();
        memory = Bytes();
        InProcessService::TearDown();
    }

    /// A camera with a known memory, the server, and a client that knows of the camera.
    void Start(const vcam::PlugOptions& options = {}) {
        camera = Plug(options);
        memory = Pattern(std::size_t{options.blockCount} * vcam::kBlockSize);
        bus.WriteMemory(camera, 0, memory);
        StartServer();
        client = Connect();
        WaitForMessage(*client, 1);
        answers = 1;
        output.Clear();
    }

    /// Sends a request and dispatches until it is answered.
    Message Ask(std::uint32_t type, std::span<const std::byte> body,
                std::uint32_t cameraId = kFirstCamera) {
        client->Write(MessageBytes(type, ++requests, cameraId, body));
        Message answer = WaitForMessage(*client, ++answers);
        EXPECT_EQ(answer.header.requestId, requests);
        EXPECT_EQ(answer.header.cameraId, cameraId);
        EXPECT_EQ(answer.header.bodyLength, answer.body.size());
        return answer;
    }

    Bytes MemoryAt(std::size_t block, std::size_t count) const {
        const auto start = memory.begin() + static_cast<std::ptrdiff_t>(block * vcam::kBlockSize);
        return {start, start + static_cast<std::ptrdiff_t>(count * vcam::kBlockSize)};
    }

    std::uint64_t RequestsSeen() { return bus.Counters(camera).requests; }

    vcam::CameraId camera = 0;
    Bytes memory;
    std::unique_ptr<PipeClient> client;
    std::size_t answers = 0;
    std::uint32_t requests = 0;
};
