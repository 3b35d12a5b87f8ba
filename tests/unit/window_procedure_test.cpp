// The procedure of the notification window, called with messages that the system rarely or never
// sends here.

#include <array>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "notification_window_fixture.h"
#include "support/removable_drive.h"
#include "windows/unique_handle.h"

namespace {

constexpr GUID kMediaArrival = {
    0xD07433C0, 0xA98E, 0x11D2, {0x91, 0x7A, 0x00, 0xA0, 0xC9, 0x06, 0x8F, 0xF3}};
constexpr GUID kConfigurationChange = {
    0x2DE97F84, 0x4C06, 0x11D2, {0xA5, 0x32, 0x00, 0x60, 0x97, 0x13, 0x05, 0x5A}};
constexpr GUID kOtherEvent = {
    0xD07433C1, 0xA98E, 0x11D2, {0x91, 0x7A, 0x00, 0xA0, 0xC9, 0x06, 0x8F, 0xF3}};

/// A slot with an event object in place of the volume: closing it is seen.
struct FilledSlot {
    explicit FilledSlot(std::size_t slotIndex) : index(slotIndex) {
        driveSlots[index].volume = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        driveSlots[index].notification = reinterpret_cast<HDEVNOTIFY>(index + 1);
    }
    HANDLE Volume() const { return driveSlots[index].volume; }
    std::size_t index;
};

class WindowProcedureTest : public ::testing::Test {
protected:
    WindowProcedureTest() {
        calls.fakeUnregister = true;
        knownDrives = ::GetLogicalDrives();
        calls.made.clear();
    }
    ~WindowProcedureTest() override {
        for (DriveSlot& slot : driveSlots)
            slot.Release();
        knownDrives = 0;
        ::DestroyWindow(window);
    }

    const HWND window = ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                          nullptr, nullptr);
    WindowCalls calls;
};

TEST_F(WindowProcedureTest, NewMediumInAnyDriveIsLookedAtByItsLetter) {
    std::vector<FilledSlot> slots;
    for (std::size_t index = 0; index < driveSlots.size(); ++index)
        slots.emplace_back(index);
    for (const FilledSlot& slot : slots) {
        const std::string letter(1, static_cast<char>('A' + slot.index));
        for (const GUID& event : {kMediaArrival, kConfigurationChange}) {
            calls.made.clear();
            EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(slot.Volume(), event)), TRUE);
            EXPECT_EQ(calls.made, (Calls{"exists " + letter, "exists " + letter}));
        }
    }
}

TEST_F(WindowProcedureTest, OtherCustomEventsAndVolumesChangeNothing) {
    const FilledSlot slot(4);
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(slot.Volume(), kOtherEvent)), TRUE);
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(slot.Volume(), GUID{})), TRUE);
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(&calls, kMediaArrival)), TRUE);
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, HandleRecord(nullptr, kMediaArrival)), TRUE)
        << "no slot's volume is null: unused ones have none";
    EXPECT_EQ(calls.made, Calls());
    EXPECT_NE(slot.Volume(), nullptr);
}

TEST_F(WindowProcedureTest, RecordsTooShortForAHandleAreNotReadAsOne) {
    const FilledSlot slot(4);
    DEV_BROADCAST_HANDLE record = HandleRecord(slot.Volume(), kMediaArrival);
    for (const DWORD size : {DWORD{sizeof(DEV_BROADCAST_HDR)}, DWORD{23}}) {
        record.dbch_size = size;
        EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, record), TRUE);
        EXPECT_EQ(Send(DBT_CUSTOMEVENT, record), TRUE);
    }
    record.dbch_size = 47;
    EXPECT_EQ(Send(DBT_CUSTOMEVENT, record), TRUE);
    EXPECT_EQ(calls.made, Calls());
    record.dbch_size = 24;  // to the handle's end
    EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, record), TRUE);
    EXPECT_EQ(slot.Volume(), nullptr);
}

TEST_F(WindowProcedureTest, RemovalOfAWatchedVolumeIsGrantedAndItsHandlesAreClosed) {
    for (std::size_t index = 0; index < driveSlots.size(); ++index) {
        const FilledSlot slot(index);
        const FilledSlot other((index + 1) % driveSlots.size());
        const HANDLE volume = slot.Volume();
        calls.made.clear();
        EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, HandleRecord(volume)), TRUE);
        EXPECT_EQ(calls.made, Calls{"unregister"});
        EXPECT_EQ(driveSlots[index].volume, nullptr);
        EXPECT_EQ(driveSlots[index].notification, nullptr);
        DWORD flags = 0;
        EXPECT_FALSE(::GetHandleInformation(volume, &flags)) << "it is closed";
        EXPECT_NE(other.Volume(), nullptr);
        driveSlots[other.index].Release();
    }
}

TEST_F(WindowProcedureTest, RemovalOfAnythingElseIsGrantedAndChangesNothing) {
    const FilledSlot slot(4);
    EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, HandleRecord(&calls)), TRUE);
    EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, HandleRecord(nullptr)), TRUE);   // empty slots have none
    driveSlots[7].volume = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);  // without notification
    EXPECT_EQ(Send(DBT_DEVICEQUERYREMOVE, HandleRecord(driveSlots[7].volume)), TRUE);
    EXPECT_NE(driveSlots[7].volume, nullptr);
    EXPECT_EQ(calls.made, Calls());
    EXPECT_NE(slot.Volume(), nullptr);
    ::CloseHandle(driveSlots[7].volume);
    driveSlots[7].volume = nullptr;
}

TEST_F(WindowProcedureTest, EveryArrivalAndRemovalLooksAtTheDrivesAndNothingElseDoes) {
    const DEV_BROADCAST_HDR record{sizeof(record), DBT_DEVTYP_OEM, 0};
    EXPECT_EQ(Send(DBT_DEVICEARRIVAL, record), TRUE);
    EXPECT_EQ(Send(DBT_DEVICEREMOVECOMPLETE, record), TRUE);
    EXPECT_EQ(calls.made, (Calls{"drives", "drives"}));
    for (const WPARAM event :
         {0x0000U, 0x0007U, 0x0018U, 0x8002U, 0x8003U, 0x8005U, 0x8007U, 0xFFFFU})
        EXPECT_EQ(Send(event, record), TRUE) << event;
    EXPECT_EQ(calls.made.size(), 2u);
}

TEST_F(WindowProcedureTest, ArrivalScansNewDrivesForTheLibraryAndRemovalForgetsThem) {
    if (!RemovableDrive::IsSupported())
        GTEST_SKIP() << "no removable drives can be made here";
    notificationWindow = window;
    const DEV_BROADCAST_HDR record{sizeof(record), DBT_DEVTYP_OEM, 0};
    {
        RemovableDrive drive(L'E');
        calls.made.clear();
        Send(DBT_DEVICEARRIVAL, record);
        EXPECT_EQ(calls.made, (Calls{"drives", "volume", "exists E", "exists E", "exists E"}));
    }
    calls.made.clear();
    calls.fakeUnregister = false;
    Send(DBT_DEVICEREMOVECOMPLETE, record);
    EXPECT_EQ(calls.made, (Calls{"drives", "unregister"}));
}

TEST_F(ServerWindowTest, EachDeviceChangeIsPostedFirstAndThenUsedForTheDrives) {
    theServer = server.get();
    const DEV_BROADCAST_HDR record{sizeof(record), DBT_DEVTYP_OEM, 0};
    for (const WPARAM event : {0x0007U, 0x8000U, 0x8001U, 0x8004U, 0x8006U}) {
        WindowCalls calls;
        DEV_BROADCAST_HANDLE handleRecord = HandleRecord(nullptr);
        EXPECT_EQ(Send(event, handleRecord), TRUE);
        EXPECT_EQ(calls.made,
                  event == 0x8000 || event == 0x8004 ? (Calls{"post", "drives"}) : Calls{"post"});
    }
    EXPECT_EQ(port.Operations(), 6u);  // those five and the listening instance's
    port.DispatchQueued();
}

TEST_F(ServerWindowTest, NothingIsPostedBeforeThereIsAServer) {
    const WindowCalls calls;
    Send(DBT_DEVICEARRIVAL, HandleRecord(nullptr));
    EXPECT_EQ(calls.made, Calls{"drives"});
}

TEST_F(ServerWindowTest, OtherMessagesAreTheSystems) {
    theServer = server.get();
    const HWND window = ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                          nullptr, nullptr);
    ::SetWindowLongPtrW(window, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(NotificationWndProc));
    const WindowCalls calls;
    ::SetWindowTextW(window, L"four");
    EXPECT_EQ(::SendMessageW(window, WM_GETTEXTLENGTH, 0, 0), 4);
    EXPECT_EQ(calls.made, Calls());
    ::DestroyWindow(window);
}

}  // namespace
