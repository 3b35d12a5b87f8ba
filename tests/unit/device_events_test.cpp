// Cameras found at start, arriving, leaving, given up.

#include <algorithm>
#include <cwctype>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "device/device.h"
#include "device/io_operation.h"
#include "device/windows_exception.h"
#include "guarded_heap.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "session/server_client.h"
#include "windows_error.h"

extern "C" {
extern decltype(&::PostQueuedCompletionStatus) __imp_PostQueuedCompletionStatus;
extern decltype(&::WriteFile) __imp_WriteFile;
}

namespace {

constexpr char kLaunched[] = "Launching application...\n";
constexpr char kNoMainCommunicator[] = "No main communicator found on device detach.\n";

class DeviceEventsTest : public InProcessService {
protected:
    vcam::CameraId PlugAs(const GUID& interfaceClass) {
        vcam::PlugOptions options;
        options.interfaceClass = interfaceClass;
        return Plug(options);
    }

    vcam::CameraId PlugStranger() {
        vcam::PlugOptions options;
        options.vendor = "Someone";
        return Plug(options);
    }

    /// How often the desktop application was started, or would have been with a user there.
    std::size_t Launches() const {
        return output.CountOut(kLaunched) +
               output.CountError("Failed to get user token to launch application.\n");
    }

    std::vector<std::uint32_t> Cameras() const {
        std::vector<std::uint32_t> ids;
        for (std::uint32_t id = 0; id < 20; ++id) {
            if (server->FindDevice(id))
                ids.push_back(id);
        }
        return ids;
    }

    void Arrive(vcam::CameraId camera) {
        InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(camera));
    }
    void GoAway(vcam::CameraId camera) {
        InterfaceEvent(DBT_DEVICEREMOVECOMPLETE, bus.InterfacePath(camera));
    }

    using Ids = std::vector<std::uint32_t>;
};

TEST_F(DeviceEventsTest, StartFindsCamerasAmongDisksFirstAndThenCdRoms) {
    const vcam::CameraId cdrom = PlugAs(vcam::kCdromInterface);
    const vcam::CameraId disk = PlugAs(vcam::kDiskInterface);
    PlugStranger();
    constexpr GUID kOther = {0x4d1e55b2, 0xf16f, 0x11cf, {0x88, 0xcb, 0, 0x11, 0x11, 0, 0, 0x30}};
    PlugAs(kOther);
    StartServer();
    EXPECT_EQ(Cameras(), (Ids{1, 2}));
    EXPECT_EQ(server->FindDevice(1)->Path(), bus.InterfacePath(disk));
    EXPECT_EQ(server->FindDevice(2)->Path(), bus.InterfacePath(cdrom));
    EXPECT_EQ(Launches(), 2u) << "once for each: no client can be connected yet";
    EXPECT_EQ(bus.Counters(disk).opens, bus.Counters(disk).closes) << "recorded, not opened";
}

TEST_F(DeviceEventsTest, StartWithoutCamerasStartsNothing) {
    PlugStranger();
    StartServer();
    EXPECT_EQ(Cameras(), Ids{});
    EXPECT_EQ(Launches(), 0u);
    EXPECT_EQ(output.Error(), "");
}

TEST_F(DeviceEventsTest, EachArrivalIsALineOfWideOutput) {
    StartServer();
    const vcam::CameraId camera = Plug();
    Arrive(camera);
    InterfaceEvent(DBT_DEVICEARRIVAL, L"\\\\?\\not a camera");
    const std::wstring expected =
        L"DeviceArrival: " + bus.InterfacePath(camera) + L"\nDeviceArrival: \\\\?\\not a camera\n";
    EXPECT_EQ(output.Wide().substr(output.Wide().size() - expected.size()), expected);
    EXPECT_EQ(Cameras(), Ids{1});
}

TEST_F(DeviceEventsTest, ArrivalWithoutAMainCommunicatorStartsTheApplicationOncePerCamera) {
    StartServer();
    Arrive(Plug());
    EXPECT_EQ(Launches(), 1u);
    Arrive(Plug());
    EXPECT_EQ(Launches(), 2u);
    Arrive(PlugStranger());
    EXPECT_EQ(Launches(), 2u);
    EXPECT_EQ(Cameras(), (Ids{1, 2}));
}

TEST_F(DeviceEventsTest, ArrivalIsSentToTheMainCommunicatorAndToNoCameraPipe) {
    StartServer();
    const auto main = Connect();
    const auto pipe = Connect();
    Arrive(Plug());
    EXPECT_EQ(WaitForMessage(*main, 1), Attached(1));
    RoundTrip(*main);
    RoundTrip(*pipe);
    EXPECT_EQ(main->Messages().size(), 2u);
    EXPECT_EQ(pipe->Messages().size(), 1u) << "only the answer";
    EXPECT_EQ(Launches(), 0u);
}

TEST_F(DeviceEventsTest, ArrivalOfAKnownPathIsIgnoredWhateverItsCase) {
    const vcam::CameraId camera = Plug();
    StartServer();
    const auto main = Connect();
    Arrive(camera);
    std::wstring path = bus.InterfacePath(camera);
    std::transform(path.begin(), path.end(), path.begin(),
                   [](wchar_t unit) { return static_cast<wchar_t>(std::towupper(unit)); });
    ASSERT_NE(path, bus.InterfacePath(camera));
    InterfaceEvent(DBT_DEVICEARRIVAL, path);
    EXPECT_EQ(Cameras(), Ids{1});
    RoundTrip(*main);
    EXPECT_EQ(main->Messages().size(), 2u);
}

TEST_F(DeviceEventsTest, SecondArrivalOfACameraDoesNotStartTheApplicationAgain) {
    StartServer();
    const vcam::CameraId camera = Plug();
    Arrive(camera);
    Arrive(camera);
    EXPECT_EQ(Launches(), 1u);
    EXPECT_EQ(Cameras(), Ids{1});
}

TEST_F(DeviceEventsTest, ArrivalOfAnyClassButCdRomIsIgnored) {
    StartServer();
    const vcam::CameraId disk = PlugAs(vcam::kDiskInterface);
    InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(disk), vcam::kDiskInterface);
    InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(disk), GUID{});
    EXPECT_EQ(Cameras(), Ids{});
    // It is the record's class that counts.
    InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(disk), vcam::kCdromInterface);
    EXPECT_EQ(Cameras(), Ids{1});
}

TEST_F(DeviceEventsTest, OtherEventsAndRecordsDoNothing) {
    const vcam::CameraId camera = Plug();
    StartServer();
    output.Clear();
    for (const WPARAM event : {WPARAM{0x0007}, WPARAM{0x8001}, WPARAM{0x8002}, WPARAM{0x8003},
                               WPARAM{0x8005}, WPARAM{0x8006}, WPARAM{0}})
        InterfaceEvent(event, bus.InterfacePath(camera));
    // Records of other types, no longer than their own header.
    for (const WPARAM event : {WPARAM{DBT_DEVICEARRIVAL}, WPARAM{DBT_DEVICEREMOVECOMPLETE}}) {
        for (const DWORD type : {0ul, 2ul, 3ul, 6ul}) {
            DEV_BROADCAST_HDR record{};
            record.dbch_size = sizeof(record);
            record.dbch_devicetype = type;
            server->PostDeviceEvent(event, &record);
        }
    }
    port.DispatchQueued();
    EXPECT_EQ(Cameras(), Ids{1});
    EXPECT_EQ(output.Out() + output.Error(), "");
    EXPECT_EQ(output.Wide(), L"");
}

TEST_F(DeviceEventsTest, RemovalIsSentToTheMainCommunicatorAlone) {
    const vcam::CameraId camera = Plug();
    StartServer();
    const auto main = Connect();
    const auto pipe = Connect();
    const auto device = server->FindDevice(1);
    GoAway(camera);
    EXPECT_EQ(WaitForMessage(*main, 2), Detached(1));
    RoundTrip(*pipe);
    EXPECT_EQ(pipe->Messages().size(), 2u);
    EXPECT_EQ(Cameras(), Ids{});
    EXPECT_FALSE(device->Removed()) << "a removal by notification does not set the flag";
    EXPECT_EQ(output.Error(), "");
}

TEST_F(DeviceEventsTest, RemovalOfTheCameraThatTheMainCommunicatorHasOpenMarksIt) {
    const vcam::CameraId camera = Plug();
    StartServer();
    const auto main = Connect();
    main->Write(MessageBytes(3, 1, 1, Read6(0, 1)));
    WaitForMessage(*main, 2);
    const auto device = server->FindDevice(1);
    GoAway(camera);
    EXPECT_EQ(WaitForMessage(*main, 3).header.messageType, 5u);
    EXPECT_TRUE(device->Removed());
    const std::uint64_t seen = bus.Counters(camera).requests;
    main->Write(MessageBytes(3, 2, 1, Read6(0, 1)));
    EXPECT_EQ(WaitForMessage(*main, 4).header.messageType, 3u);
    EXPECT_EQ(bus.Counters(camera).requests, seen);
}

TEST_F(DeviceEventsTest, RemovalOfAnotherCameraLeavesTheOpenOneAlone) {
    Plug();
    const vcam::CameraId second = Plug();
    StartServer();
    const auto main = Connect();
    main->Write(MessageBytes(3, 1, 1, Read6(0, 1)));
    WaitForMessage(*main, 3);
    GoAway(second);
    WaitForMessage(*main, 4);
    EXPECT_FALSE(server->FindDevice(1)->Removed());
    main->Write(MessageBytes(3, 2, 1, Read6(0, 1)));
    EXPECT_EQ(WaitForMessage(*main, 5).header.messageType, 2u);
}

TEST_F(DeviceEventsTest, RemovalWithoutAMainCommunicatorErasesAndSaysSo) {
    const vcam::CameraId camera = Plug();
    StartServer();
    GoAway(camera);
    EXPECT_EQ(Cameras(), Ids{});
    EXPECT_EQ(output.Error(), kNoMainCommunicator);
}

TEST_F(DeviceEventsTest, RemovalOfAnUnknownPathChangesNothingAndWritesNothing) {
    Plug();
    StartServer();
    output.Clear();
    InterfaceEvent(DBT_DEVICEREMOVECOMPLETE, L"\\\\?\\unknown");
    InterfaceEvent(DBT_DEVICEREMOVECOMPLETE, L"");
    EXPECT_EQ(Cameras(), Ids{1});
    EXPECT_EQ(output.Out() + output.Error(), "");
}

TEST_F(DeviceEventsTest, RemovalCountsForAnyClassAndCase) {
    const vcam::CameraId first = Plug();
    const vcam::CameraId second = Plug();
    StartServer();
    InterfaceEvent(DBT_DEVICEREMOVECOMPLETE, bus.InterfacePath(first), vcam::kDiskInterface);
    EXPECT_EQ(Cameras(), Ids{2});
    std::wstring path = bus.InterfacePath(second);
    std::transform(path.begin(), path.end(), path.begin(),
                   [](wchar_t unit) { return static_cast<wchar_t>(std::towupper(unit)); });
    InterfaceEvent(DBT_DEVICEREMOVECOMPLETE, path, GUID{});
    EXPECT_EQ(Cameras(), Ids{});
}

TEST_F(DeviceEventsTest, CameraThatComesBackGetsANewIdentifier) {
    const vcam::CameraId camera = Plug();
    StartServer();
    for (std::uint32_t id = 1; id < 6; ++id) {
        EXPECT_EQ(Cameras(), Ids{id});
        GoAway(camera);
        Arrive(camera);
    }
}

TEST_F(DeviceEventsTest, CameraThatIsGivenUpIsMarkedErasedAndReported) {
    Plug();
    Plug();
    StartServer();
    const auto main = Connect();
    WaitForMessage(*main, 2);
    const auto device = server->FindDevice(2);
    server->RemoveDevice(device);
    EXPECT_TRUE(device->Removed());
    EXPECT_EQ(Cameras(), Ids{1});
    const Message message = WaitForMessage(*main, 3);
    EXPECT_EQ(message.header.messageType, 5u);
    EXPECT_EQ(message.header.cameraId, 2u);
}

TEST_F(DeviceEventsTest, GivingUpWithoutAMainCommunicatorSaysSo) {
    Plug();
    StartServer();
    server->RemoveDevice(server->FindDevice(1));
    EXPECT_EQ(Cameras(), Ids{});
    EXPECT_EQ(output.Error(), kNoMainCommunicator);
}

TEST_F(DeviceEventsTest, GivingUpNothingDoesNothing) {
    Plug();
    StartServer();
    server->RemoveDevice({});
    EXPECT_EQ(Cameras(), Ids{1});
    EXPECT_EQ(output.Error(), "");
}

TEST_F(DeviceEventsTest, IdentifiersOutsideTheTableAreNoCamera) {
    Plug();
    StartServer();
    for (const std::uint32_t id : {0u, 2u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu})
        EXPECT_FALSE(server->FindDevice(id)) << id;
}

TEST_F(DeviceEventsTest, RecordIsCopiedWhenItIsPosted) {
    const vcam::CameraId camera = Plug();
    StartServer();
    GoAway(camera);
    const std::wstring path = bus.InterfacePath(camera);
    // PostInterfaceEvent() frees its record before the packet is dispatched.
    for (int count = 0; count < 10; ++count)
        PostInterfaceEvent(count % 2 == 0 ? DBT_DEVICEARRIVAL : DBT_DEVICEREMOVECOMPLETE, path);
    port.DispatchQueued();
    PostInterfaceEvent(DBT_DEVICEARRIVAL, path);
    port.DispatchQueued();
    EXPECT_EQ(Cameras(), Ids{7});
}

/// Sees the handle of the last write of 16 bytes, a message's header.
class WriteHandle {
public:
    WriteHandle() : hook(&__imp_WriteFile, Write) { current = this; }
    ~WriteHandle() { current = nullptr; }
    HANDLE last = nullptr;

private:
    static BOOL WINAPI Write(HANDLE file, LPCVOID from, DWORD size, LPDWORD done,
                             LPOVERLAPPED state) {
        if (size == sizeof(MessageHeader))
            current->last = file;
        return current->hook.Original()(file, from, size, done, state);
    }
    static inline WriteHandle* current = nullptr;
    ImportHook<decltype(&::WriteFile)> hook;
};

TEST_F(DeviceEventsTest, FailureInADeviceEventIsALineAndGoesOn) {
    const vcam::CameraId camera = Plug();
    HANDLE pipe = nullptr;
    std::unique_ptr<PipeClient> main;
    {
        const WriteHandle write;
        StartServer();
        main = Connect(PipeClient::Reading::kNever);
        pipe = write.last;  // of the notification
    }
    port.DispatchQueued();
    output.Clear();
    PostInterfaceEvent(DBT_DEVICEREMOVECOMPLETE, bus.InterfacePath(camera));
    port.WaitForPackets(1);
    // Behind the service's back: the event's write fails with what is no end of a client.
    ASSERT_TRUE(::CloseHandle(pipe));
    EXPECT_THROW(port.DispatchOne(), WindowsException);
    EXPECT_EQ(output.Error(), "Error in Server::DeviceEvent().\n");
    EXPECT_EQ(Cameras(), Ids{}) << "it was erased before";
}

TEST_F(DeviceEventsTest, EventThatCannotBePostedIsThrownAndFreedWithItsCopy) {
    ORVIK_NEEDS_GUARDED_HEAP();
    StartServer();
    const auto record = std::make_unique<DEV_BROADCAST_HDR[]>(100);
    record[0].dbch_size = 100 * sizeof(DEV_BROADCAST_HDR);
    const std::size_t operations = port.Operations();
    const std::size_t copies = guarded_heap::LiveBlocks(record[0].dbch_size);
    {
        const HookedImport<&__imp_PostQueuedCompletionStatus> post(
            [&](HANDLE target, DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped) {
                EXPECT_EQ(target, port.Get());
                EXPECT_EQ(bytes, 0u);
                EXPECT_EQ(key, 0x1234u);
                EXPECT_NE(IoOperation::FromOverlapped(overlapped)->transferBuffer, record.get());
                EXPECT_EQ(guarded_heap::LiveBlocks(record[0].dbch_size), copies + 1);
                ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return FALSE;
            });
        EXPECT_TRUE(
            StartsWith(WindowsErrorOf([&] { server->PostDeviceEvent(0x1234, record.get()); }),
                       "PostQueuedCompletionStatus failed.  GetLastError() = 0x8 ("));
    }
    EXPECT_EQ(port.Operations(), operations);
    EXPECT_EQ(guarded_heap::LiveBlocks(record[0].dbch_size), copies);
}

}  // namespace
