#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include <windows.h>

#include "in_process_service.h"

using Reading = PipeClient::Reading;

enum class Role { kMainCommunicator, kCameraPipe };
enum class End { kClientLeaves, kRegistryRemoves, kServerDestroyed };

enum class TransferEnd { kSuccess, kError, kAborted, kUnplug };

inline std::string Name(Role role) {
    return role == Role::kMainCommunicator ? "MainCommunicator" : "CameraPipe";
}

inline std::string Name(End end) {
    switch (end) {
        case End::kClientLeaves:
            return "ClientLeaves";
        case End::kRegistryRemoves:
            return "RegistryRemoves";
        default:
            return "ServerDestroyed";
    }
}

/// Requests that stay in the driver until they are released or their camera is unplugged.
inline vcam::Behaviour HeldUntil(TransferEnd end) {
    vcam::Behaviour behaviour = Holds();
    behaviour.ignoreCancel = true;
    if (end == TransferEnd::kError)
        behaviour.completionStatus = kStatusIoDeviceError;
    if (end == TransferEnd::kAborted)
        behaviour.completionStatus = kStatusCancelled;
    return behaviour;
}

/// A camera, the server, and two clients: the main communicator and a camera pipe.
class LifetimeTest : public InProcessService {
protected:
    void SetUp() override {
        InProcessService::SetUp();
        camera = Plug();
        StartServer();
    }

    void TearDown() override {
        main.reset();
        pipe.reset();
        InProcessService::TearDown();
    }

    /// Connects a client that knows of the camera; its read is the only operation in progress.
    std::unique_ptr<PipeClient> ConnectQuietly(Reading reading = Reading::kNever) {
        auto client = Connect(reading);
        if (reading == Reading::kAtOnce)
            WaitForMessage(*client, 1);
        port.DispatchQueued();
        return client;
    }

    /// Writes, and waits until the packets of both sides are queued behind `before` others.
    void WriteAndQueue(PipeClient& client, std::span<const std::byte> bytes,
                       std::size_t before = 0) {
        client.Write(bytes);
        port.WaitForPackets(before + 2);
    }

    /// Leaves requests pending in the driver.
    void LeavePending(PipeClient& client, std::uint32_t count, const vcam::Behaviour& how) {
        const std::uint32_t pending = bus.Counters(camera).pending;
        bus.SetBehaviour(camera, how);
        for (std::uint32_t index = 0; index < count; ++index)
            client.Write(MessageBytes(3, 300 + index, kFirstCamera, Read6(index, 1)));
        port.DispatchUntil("requests in the driver", [&] {
            return bus.Counters(camera).pending == pending + count && client.PendingWrites() == 0;
        });
        bus.SetBehaviour(camera, {});
    }

    /// Makes the write queue of a client that never reads long, with a write pending.
    void FillWriteQueue(PipeClient& client) {
        constexpr std::uint32_t kCount = 64;  // of 64 KiB each
        const std::uint64_t seen = bus.Counters(camera).requests;
        for (std::uint32_t index = 0; index < kCount; ++index)
            client.Write(MessageBytes(3, index, kFirstCamera, Read6(0, 128)));
        port.DispatchUntil("the requests", [&] {
            return bus.Counters(camera).requests == seen + kCount && client.PendingWrites() == 0;
        });
        port.DispatchQueued();
    }

    /// Ends the session of `client`. The packets of its operations have not been taken then; only a
    /// client that leaves is noticed by one of them.
    void EndSession(PipeClient& client, End end) {
        const std::size_t before = Shutdowns();
        switch (end) {
            case End::kClientLeaves:
                client.Close();
                WaitForShutdowns(before + 1);
                break;
            case End::kRegistryRemoves:
                server->RemoveClient(server->GetMainCommunicator().get());
                break;
            case End::kServerDestroyed:
                server.reset();
                break;
        }
        EXPECT_GE(Shutdowns(), before + 1);
    }

    /// Starts a server if the test has destroyed its own.
    void EnsureServer() {
        if (server)
            return;
        port.Drain();
        StartServer();
    }

    std::uint32_t Pending() { return bus.Counters(camera).pending; }

    vcam::CameraId camera = 0;
    std::unique_ptr<PipeClient> main;
    std::unique_ptr<PipeClient> pipe;
};
