// The camera of a session: how it is opened and closed, and what happens when that or a transfer
// fails.

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "call_log.h"
#include "device/device.h"
#include "device/windows_exception.h"
#include "import_hook.h"
#include "session_fixture.h"
#include "windows_error.h"

extern "C" decltype(&::CreateFileW) __imp_CreateFileW;

namespace {

TEST_F(SessionTest, UnknownCameraEndsTheRunWithAPlainRuntimeErrorAndNoAnswer) {
    Start();
    for (const std::uint32_t id : {0u, 2u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(id);
        auto asking = ConnectAndAsk();
        const std::size_t before = asking->Messages().size();
        CallLog log;
        asking->Write(MessageBytes(3, 5, id, Read6(0, 1)));
        try {
            port.DispatchUntil("the error", [] { return false; });
            FAIL() << "no exception";
        } catch (const WindowsException& exception) {
            FAIL() << "a system error: " << exception.what();
        } catch (const std::runtime_error& error) {
            EXPECT_STREQ(error.what(), "Bad camera in request.");
        }
        log.text.clear();
        port.DispatchQueued();
        EXPECT_EQ(log.text.find('R'), std::string::npos) << "the session reads on: " << log.text;
        EXPECT_EQ(asking->Messages().size(), before);
    }
}

TEST_F(SessionTest, CameraThatCannotBeOpenedEndsTheRun) {
    Start();
    bus.Unplug(camera);
    client->Write(MessageBytes(3, 1, kFirstCamera, Read6(0, 1)));
    EXPECT_TRUE(
        StartsWith(WindowsErrorOf([&] { port.DispatchUntil("the error", [] { return false; }); }),
                   "Device::Open() failed.  GetLastError() = 0x"));
    // The session closes what it has not opened; that ends at once.
    output.Clear();
    server.reset();
    EXPECT_EQ(Shutdowns(), 1u);
    ForgetPlugged();
}

/// As an exclusive open fails while Explorer, AutoPlay or a virus scanner has the drive open. The
/// call is redirected, because Wine enforces no share mode for this camera and ignores a driver's
/// refusal.
TEST_F(SessionTest, CameraThatAnotherProgramHasOpenEndsTheRun) {
    Start();
    using Create = HookedImport<&__imp_CreateFileW>;
    const Create refused([&](const wchar_t* path, DWORD access, DWORD share,
                             SECURITY_ATTRIBUTES* security, DWORD disposition, DWORD flags,
                             HANDLE sample) {
        if (bus.InterfacePath(camera) != path)
            return Create::Original(path, access, share, security, disposition, flags, sample);
        EXPECT_EQ(share, 0u);
        ::SetLastError(ERROR_SHARING_VIOLATION);
        return INVALID_HANDLE_VALUE;
    });
    client->Write(MessageBytes(3, 1, kFirstCamera, Read6(0, 1)));
    EXPECT_TRUE(
        StartsWith(WindowsErrorOf([&] { port.DispatchUntil("the error", [] { return false; }); }),
                   "Device::Open() failed.  GetLastError() = 0x20 ("));
}

TEST_F(SessionTest, SessionKeepsOneCameraOpenAndClosesItForTheNext) {
    const vcam::CameraId first = Plug();
    const vcam::CameraId second = Plug();
    StartServer();
    client = Connect();
    WaitForMessage(*client, 2);
    answers = 2;
    const auto open = [&](vcam::CameraId id) {
        const vcam::CameraCounters counters = bus.Counters(id);
        return counters.opens - counters.closes;
    };
    EXPECT_EQ(open(first), 0u);
    const std::uint64_t opensBefore = bus.Counters(first).opens;
    Ask(3, Read6(0, 1), 1);
    Ask(3, Read6(0, 1), 1);
    EXPECT_EQ(bus.Counters(first).opens, opensBefore + 1) << "opened once for two requests";
    EXPECT_EQ(open(first), 1u);
    EXPECT_EQ(open(second), 0u);
    Ask(3, Read6(0, 1), 2);
    EXPECT_EQ(open(first), 0u);
    EXPECT_EQ(open(second), 1u);
    // Messages without a transfer leave it open.
    Ask(3, {}, 1);
    EXPECT_EQ(open(second), 1u);
    Leave(client);
    EXPECT_EQ(open(second), 0u);
}

TEST_F(SessionTest, CameraStaysOpenUntilTheLastOfItsSessionsEnds) {
    Start();
    auto other = ConnectAndAsk();
    Ask(3, Read6(0, 1));
    other->Write(MessageBytes(3, 50, kFirstCamera, Read6(0, 1)));
    WaitForMessage(*other, 3);
    const vcam::CameraCounters counters = bus.Counters(camera);
    Leave(other);
    EXPECT_EQ(bus.Counters(camera).closes, counters.closes);
    Ask(3, Read6(0, 1));
    Leave(client);
    EXPECT_EQ(bus.Counters(camera).closes, counters.closes + 1);
}

TEST_F(SessionTest, TransferThatCannotStartFailsFirstAndThenTheCameraIsGone) {
    Start();
    auto asking = ConnectAndAsk();
    const std::size_t before = asking->Messages().size();
    bus.SetBehaviour(camera, FailsAtOnce(kStatusIoDeviceError));
    const auto device = server->FindDevice(kFirstCamera);
    client->Write(MessageBytes(3, 81, kFirstCamera, Read6(0, 1)));
    WaitForMessage(*client, 3);
    const std::vector<Message> messages = client->Messages();
    EXPECT_EQ(messages[1].header.messageType, 3u);
    EXPECT_EQ(messages[1].header.requestId, 81u);
    EXPECT_EQ(messages[2].header.messageType, 5u);
    EXPECT_EQ(messages[2].header.requestId, 0xFFFFFFFFu);
    EXPECT_EQ(messages[2].header.cameraId, kFirstCamera);
    EXPECT_EQ(messages[2].header.bodyLength, 0u);
    EXPECT_FALSE(server->FindDevice(kFirstCamera));
    EXPECT_TRUE(device->Removed());
    answers = 3;

    // A client that still has it attached gets a failure without any device call.
    bus.SetBehaviour(camera, {});
    const std::uint64_t seen = RequestsSeen();
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 3u);
    EXPECT_EQ(RequestsSeen(), seen);
    RoundTrip(*asking);
    EXPECT_EQ(asking->Messages().size(), before + 1) << "a camera pipe was told";
}

TEST_F(SessionTest, TransferThatCannotStartWithoutAMainCommunicatorIsOneLine) {
    Start();
    auto asking = ConnectAndAsk();
    Leave(client);
    output.Clear();
    bus.SetBehaviour(camera, FailsAtOnce(kStatusIoDeviceError));
    const std::size_t before = asking->Messages().size();
    asking->Write(MessageBytes(4, 82, kFirstCamera, TestUnitReady()));
    WaitForMessage(*asking, before + 1);
    EXPECT_EQ(asking->Messages().back().header.messageType, 3u);
    EXPECT_EQ(output.Error(), "No main communicator found on device detach.\n");
    RoundTrip(*asking);
}

TEST_F(SessionTest, TransferThatFailsAtOnceWithAbortedIsAnsweredLikeAnyOther) {
    Start();
    bus.SetBehaviour(camera, FailsAtOnce(kStatusCancelled));
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 3u);
}

TEST_F(SessionTest, TransferThatFailsAtOnceWithAWarningIsAnsweredOnce) {
    Start();
    bus.SetBehaviour(camera, FailsAtOnce(kStatusBufferOverflow));
    client->Write(MessageBytes(3, 90, kFirstCamera, Read6(0, 1)));
    WaitForMessage(*client, 2);
    RoundTrip(*client);
    std::size_t count = 0;
    for (const Message& message : client->Messages())
        count += message.header.requestId == 90 ? 1u : 0u;
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(client->Messages()[1].header.messageType, 3u);
}

TEST_F(SessionTest, RemovedCameraFailsThroughTheSessionThatHasItWithoutADeviceCall) {
    Start();
    Ask(3, Read6(0, 1));
    const std::uint64_t seen = RequestsSeen();
    server->FindDevice(kFirstCamera)->SetRemoved();
    EXPECT_EQ(Ask(3, Read6(0, 1)).header.messageType, 3u);
    EXPECT_EQ(RequestsSeen(), seen);
    EXPECT_TRUE(server->FindDevice(kFirstCamera)) << "only a flag: the camera stays in the table";
}

}  // namespace
