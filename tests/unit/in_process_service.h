#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "guarded_heap.h"
#include "output_capture.h"
#include "pipe_client.h"
#include "server/server.h"
#include "support/camera_setup.h"
#include "support/commands.h"
#include "test_port.h"
#include "virtual_camera.h"

/// A `Server` on a port that the test serves itself, pipe clients, and virtual cameras.
///
/// Each test ends by destroying the server and dispatching the packets still to come; then no
/// operation and no block of memory may be left, and no camera handle open.
class InProcessService : public ::testing::Test {
protected:
    InProcessService();
    ~InProcessService() override;

    void SetUp() override;
    void TearDown() override;

    /// Makes the server; the cameras plugged by then are found by it.
    void StartServer();

    /// Connects a client and dispatches until the service has accepted it.
    std::unique_ptr<PipeClient> Connect(PipeClient::Reading reading = PipeClient::Reading::kAtOnce);

    /// Connects a client and dispatches until it has the answer to its first request.
    std::unique_ptr<PipeClient> ConnectAndAsk();

    /// Sends a request that touches no camera and dispatches until it is answered with
    /// kTransferFailed: everything that the client sent before has been handled then.
    void RoundTrip(PipeClient& client);

    /// Writes, and dispatches until the service has read and handled it.
    void WriteAndDispatch(PipeClient& client, std::span<const std::byte> bytes);

    /// Dispatches until the client has at least so many messages; returns the last of those.
    Message WaitForMessage(PipeClient& client, std::size_t count);

    /// The client leaves, and the service notices.
    void Leave(std::unique_ptr<PipeClient>& client);

    /// Sessions destroyed so far.
    std::size_t Shutdowns() const { return output.CountOut("ServerClient shutdown.\n"); }
    void WaitForShutdowns(std::size_t count);

    /// Plugs a camera that is there until the end of the test.
    vcam::CameraId Plug(const vcam::PlugOptions& options = {});

    /// The test leaves handles of its cameras open on purpose.
    void LeaveOpen() { leftOpen = true; }

    /// The test has unplugged its cameras itself.
    void ForgetPlugged() { plugged.clear(); }

    /// Posts the event of a device interface that comes (DBT_DEVICEARRIVAL) or goes.
    void PostInterfaceEvent(WPARAM eventCode, const std::wstring& path,
                            const GUID& interfaceClass = vcam::kCdromInterface);

    /// Posts the event, and dispatches it.
    void InterfaceEvent(WPARAM eventCode, const std::wstring& path,
                        const GUID& interfaceClass = vcam::kCdromInterface);

    /// The service still accepts a client and answers it.
    void ExpectServing();

    /// Destroys the server and dispatches the packets still to come.
    void StopServer();

    static constexpr std::uint32_t kFirstCamera = 1;  // identifiers count from 1

    OutputCapture output;
    vcam::Bus bus;
    TestPort port;
    std::unique_ptr<Server> server;

private:
    void WarmUp();

    const guarded_heap::ErrorChangingFree changingFree;
    guarded_heap::Snapshot heapBefore;
    std::vector<vcam::CameraId> plugged;
    bool leftOpen = false;
    std::uint32_t roundTrips = 0;
};
