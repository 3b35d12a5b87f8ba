// The watch over removable drives, on drives that come and go.

#include "device/drive_watch.h"

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>
#include <shlwapi.h>

#include "device/windows_exception.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "support/removable_drive.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::PathFileExistsW) __imp_PathFileExistsW;
extern decltype(&::RegisterDeviceNotificationW) __imp_RegisterDeviceNotificationW;
extern decltype(&::UnregisterDeviceNotification) __imp_UnregisterDeviceNotification;
}

namespace {

using Kind = RemovableDrive::Kind;
using Texts = std::vector<std::wstring>;

const Texts kLibrary{LR"(MISC\orviklibrary.db)"};
const Texts kDatabase{LR"(MISC\database.db)"};

/// The drive watch's calls of Windows while this lives.
class WatchedCalls {
public:
    WatchedCalls()
        : create(&__imp_CreateFileW, Create),
          exists(&__imp_PathFileExistsW, Exists),
          registerHook(&__imp_RegisterDeviceNotificationW, Register),
          unregister(&__imp_UnregisterDeviceNotification, Unregister) {
        current = this;
    }
    ~WatchedCalls() { current = nullptr; }
    WatchedCalls(const WatchedCalls&) = delete;
    WatchedCalls& operator=(const WatchedCalls&) = delete;

    struct Open {
        std::wstring path;
        DWORD access;
        DWORD share;
        DWORD disposition;
        DWORD flags;
    };

    Texts lookedFor;  // the paths given to PathFileExistsW
    std::vector<Open> opens;
    std::vector<DEV_BROADCAST_HANDLE> registered;
    std::vector<std::pair<HANDLE, DWORD>> recipients;  // and flags
    std::vector<HDEVNOTIFY> unregistered;
    std::wstring refusedVolume;  // opening it fails
    HANDLE refused = nullptr;    // ... and registering for it
    bool refuseToRegister = false;

private:
    static HANDLE WINAPI Create(LPCWSTR path, DWORD access, DWORD share,
                                LPSECURITY_ATTRIBUTES security, DWORD disposition, DWORD flags,
                                HANDLE pattern) {
        if (std::wstring(path).starts_with(LR"(\\.\)") && path[5] == L':') {
            current->opens.push_back({path, access, share, disposition, flags});
            if (current->refusedVolume == path) {
                ::SetLastError(ERROR_ACCESS_DENIED);
                return INVALID_HANDLE_VALUE;
            }
        }
        return current->create.Original()(path, access, share, security, disposition, flags,
                                          pattern);
    }
    static BOOL WINAPI Exists(LPCWSTR path) {
        current->lookedFor.emplace_back(path);
        return current->exists.Original()(path);
    }
    static HDEVNOTIFY WINAPI Register(HANDLE recipient, LPVOID filter, DWORD flags) {
        current->registered.push_back(*static_cast<DEV_BROADCAST_HANDLE*>(filter));
        current->recipients.emplace_back(recipient, flags);
        if (current->refuseToRegister) {
            ::SetLastError(ERROR_SERVICE_SPECIFIC_ERROR);
            return nullptr;
        }
        return current->registerHook.Original()(recipient, filter, flags);
    }
    static BOOL WINAPI Unregister(HDEVNOTIFY notification) {
        current->unregistered.push_back(notification);
        return current->unregister.Original()(notification);
    }

    static inline WatchedCalls* current = nullptr;
    ImportHook<decltype(&::CreateFileW)> create;
    ImportHook<decltype(&::PathFileExistsW)> exists;
    ImportHook<decltype(&::RegisterDeviceNotificationW)> registerHook;
    ImportHook<decltype(&::UnregisterDeviceNotification)> unregister;
};

DriveSlot& SlotOf(wchar_t letter) {
    return driveSlots[static_cast<std::size_t>(letter - L'A')];
}

bool IsWatched(wchar_t letter) {
    const DriveSlot& slot = SlotOf(letter);
    EXPECT_EQ(slot.notification == nullptr, slot.volume == nullptr);
    return slot.notification != nullptr;
}

class DriveWatchTest : public ::testing::Test {
protected:
    DriveWatchTest()
        : window(::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr, nullptr,
                                   nullptr)) {
        notificationWindow = window;
        knownDrives = 0;
    }
    ~DriveWatchTest() override {
        for (DriveSlot& slot : driveSlots)
            slot.Release();
        ::DestroyWindow(window);
    }
    void SetUp() override {
        if (!RemovableDrive::IsSupported())
            GTEST_SKIP() << "no removable drives can be made here";
    }

    HWND window;
};

TEST_F(DriveWatchTest, FirstScanWatchesTheRemovableDrivesPresentAndLooksForNoLibrary) {
    const RemovableDrive e(L'E', Kind::kRemovable, {kLibrary, false});
    const RemovableDrive f(L'F', Kind::kRemovable, {kDatabase, false});
    const RemovableDrive fixed(L'G', Kind::kFixed);
    const RemovableDrive dvd(L'H', Kind::kCdrom);
    const WatchedCalls calls;
    ScanDrives(true);
    for (wchar_t letter = L'A'; letter <= L'Z'; ++letter)
        EXPECT_EQ(IsWatched(letter), letter == L'E' || letter == L'F') << char(letter);
    EXPECT_EQ(calls.lookedFor, Texts());
    EXPECT_EQ(knownDrives, ::GetLogicalDrives());

    ASSERT_EQ(calls.opens.size(), 2u);
    EXPECT_EQ(calls.opens[0].path, LR"(\\.\E:)");
    EXPECT_EQ(calls.opens[1].path, LR"(\\.\F:)");
    EXPECT_EQ(calls.opens[0].access, 0u);
    EXPECT_EQ(calls.opens[0].share, 7u);
    EXPECT_EQ(calls.opens[0].disposition, DWORD{OPEN_EXISTING});
    EXPECT_EQ(calls.opens[0].flags, 0u);
    ASSERT_EQ(calls.registered.size(), 2u);
    EXPECT_EQ(calls.registered[0].dbch_size, 56u);
    EXPECT_EQ(calls.registered[0].dbch_devicetype, 6u);
    EXPECT_EQ(calls.registered[0].dbch_handle, SlotOf(L'E').volume);
    EXPECT_EQ(calls.registered[1].dbch_handle, SlotOf(L'F').volume);
    EXPECT_EQ(calls.recipients[0], (std::pair<HANDLE, DWORD>(window, 0)));
}

TEST_F(DriveWatchTest, LaterScanLooksForTheLibraryOnDrivesThatAreNew) {
    ScanDrives(true);
    const RemovableDrive g(L'G', Kind::kRemovable, {kDatabase, false});
    const WatchedCalls calls;
    ScanDrives(false);
    EXPECT_TRUE(IsWatched(L'G'));
    EXPECT_EQ(calls.lookedFor,
              (Texts{L"G:", LR"(G:\MISC\orviklibrary.db)", LR"(G:\MISC\database.db)"}));
    // It is no longer new.
    ScanDrives(false);
    EXPECT_EQ(calls.lookedFor.size(), 3u);
    EXPECT_EQ(calls.opens.size(), 1u);
}

TEST_F(DriveWatchTest, TheOtherNameOfTheLibraryIsNotLookedForWhereTheFirstIs) {
    ScanDrives(true);
    const RemovableDrive g(L'G', Kind::kRemovable, {{kLibrary[0], kDatabase[0]}, false});
    const WatchedCalls calls;
    ScanDrives(false);
    EXPECT_EQ(calls.lookedFor, (Texts{L"G:", LR"(G:\MISC\orviklibrary.db)"}));
}

TEST_F(DriveWatchTest, DriveWithoutAMediumIsWatchedButNotLookedAt) {
    ScanDrives(true);
    const RemovableDrive g(L'G', Kind::kRemovable, {kDatabase, true});
    const WatchedCalls calls;
    ScanDrives(false);
    EXPECT_TRUE(IsWatched(L'G'));
    EXPECT_EQ(calls.lookedFor, Texts{L"G:"});
}

TEST_F(DriveWatchTest, FixedAndOpticalDrivesAreIgnored) {
    ScanDrives(true);
    const RemovableDrive fixed(L'G', Kind::kFixed, {kDatabase, false});
    const RemovableDrive dvd(L'H', Kind::kCdrom, {kDatabase, false});
    const WatchedCalls calls;
    ScanDrives(false);
    EXPECT_FALSE(IsWatched(L'G'));
    EXPECT_FALSE(IsWatched(L'H'));
    EXPECT_EQ(calls.lookedFor, Texts());
    EXPECT_TRUE(calls.opens.empty());
}

TEST_F(DriveWatchTest, DriveThatComesBackGetsAFreshHandleAndIsLookedAtAgain) {
    RemovableDrive g(L'G', Kind::kRemovable, {kLibrary, false});
    ScanDrives(true);
    g.Disappear();
    const WatchedCalls calls;
    ScanDrives(false);  // it has gone, and its slot stays
    EXPECT_TRUE(IsWatched(L'G'));
    EXPECT_TRUE(calls.unregistered.empty());
    const HDEVNOTIFY before = SlotOf(L'G').notification;
    g.Appear();
    ScanDrives(false);
    EXPECT_EQ(calls.unregistered, std::vector<HDEVNOTIFY>{before});
    EXPECT_TRUE(IsWatched(L'G'));
    EXPECT_EQ(calls.registered.size(), 1u);
    EXPECT_EQ(calls.lookedFor, (Texts{L"G:", LR"(G:\MISC\orviklibrary.db)"}));
}

TEST_F(DriveWatchTest, VolumeThatCannotBeOpenedIsLeftOut) {
    const RemovableDrive e(L'E');
    const RemovableDrive f(L'F');
    WatchedCalls calls;
    calls.refusedVolume = LR"(\\.\E:)";
    ScanDrives(false);
    EXPECT_FALSE(IsWatched(L'E'));
    EXPECT_TRUE(IsWatched(L'F'));
    EXPECT_EQ(calls.lookedFor[0], L"F:");
}

TEST_F(DriveWatchTest, RegistrationThatFailsIsThrownAndTheDrivesBehindAreNotLookedAt) {
    const RemovableDrive e(L'E');
    const RemovableDrive f(L'F');
    WatchedCalls calls;
    calls.refuseToRegister = true;
    try {
        ScanDrives(true);
        FAIL() << "nothing was thrown";
    } catch (const WindowsException& exception) {
        EXPECT_TRUE(std::string(exception.what()).starts_with("GetLastError() = 0x42a ("))
            << exception.what();
    }
    EXPECT_EQ(calls.opens.size(), 1u);
    EXPECT_EQ(SlotOf(L'E').notification, nullptr);
    EXPECT_NE(SlotOf(L'E').volume, nullptr) << "it stays";
    EXPECT_EQ(SlotOf(L'F').volume, nullptr);
    ::CloseHandle(std::exchange(SlotOf(L'E').volume, nullptr));
}

TEST_F(DriveWatchTest, ForgettingReleasesDrivesThatHaveGone) {
    const RemovableDrive e(L'E');
    RemovableDrive f(L'F');
    const RemovableDrive g(L'G');
    ScanDrives(true);
    f.Disappear();
    ForgetChangedDrives();
    EXPECT_TRUE(IsWatched(L'E'));
    EXPECT_FALSE(IsWatched(L'F'));
    EXPECT_TRUE(IsWatched(L'G'));
    EXPECT_EQ(knownDrives, ::GetLogicalDrives());
    ForgetChangedDrives();
    EXPECT_TRUE(IsWatched(L'E'));
}

// As long as the volume is open, the drive cannot be removed safely.
TEST_F(DriveWatchTest, ReleaseUnregistersTheNotificationAndThenClosesTheVolume) {
    RemovableDrive e(L'E');
    ScanDrives(true);
    const DriveSlot watched = SlotOf(L'E');
    Texts calls;
    using Close = HookedImport<&__imp_CloseHandle>;
    const Close close([&](HANDLE handle) {
        if (handle == watched.volume)
            calls.emplace_back(L"close");
        return Close::Original(handle);
    });
    using Unregister = HookedImport<&__imp_UnregisterDeviceNotification>;
    const Unregister unregister([&](HDEVNOTIFY notification) {
        EXPECT_EQ(notification, watched.notification);
        calls.emplace_back(L"unregister");
        return Unregister::Original(notification);
    });
    e.Disappear();
    ForgetChangedDrives();
    EXPECT_EQ(calls, (Texts{L"unregister", L"close"}));
    EXPECT_FALSE(IsWatched(L'E'));
}

TEST_F(DriveWatchTest, DriveFirstNoticedByForgettingIsNotWatchedUntilItComesAgain) {
    ScanDrives(true);
    RemovableDrive e(L'E', Kind::kRemovable, {kLibrary, false});
    ForgetChangedDrives();
    EXPECT_EQ(knownDrives, ::GetLogicalDrives());
    ScanDrives(false);
    EXPECT_FALSE(IsWatched(L'E'));
    e.Disappear();
    ForgetChangedDrives();
    e.Appear();
    ScanDrives(false);
    EXPECT_TRUE(IsWatched(L'E'));
}

TEST_F(DriveWatchTest, ForgettingReleasesASlotWhoseDriveHasComeBack) {
    RemovableDrive e(L'E');
    ScanDrives(true);
    e.Disappear();
    ScanDrives(false);
    e.Appear();
    ForgetChangedDrives();
    EXPECT_FALSE(IsWatched(L'E'));
}

/// With a server behind it.
class LibraryTest : public InProcessService {
protected:
    void SetUp() override {
        if (!RemovableDrive::IsSupported())
            GTEST_SKIP() << "no removable drives can be made here";
        InProcessService::SetUp();
        StartServer();
        theServer = server.get();
    }
    void TearDown() override {
        theServer = nullptr;
        if (server)
            InProcessService::TearDown();
    }

    /// How often the application was started, or would have been with a user there.
    std::size_t Launches() const {
        return output.CountOut("Launching application...\n") +
               output.CountError("Failed to get user token to launch application.\n");
    }
};

TEST_F(LibraryTest, EitherFileStartsTheApplicationOnce) {
    std::size_t launches = 0;
    for (const Texts& files : {kLibrary, kDatabase, Texts{kLibrary[0], kDatabase[0]}}) {
        const RemovableDrive drive(L'E', Kind::kRemovable, {files, false});
        CheckLibraryDrive(L'E');
        EXPECT_EQ(Launches(), ++launches);
    }
}

TEST_F(LibraryTest, NoLibraryStartsNothing) {
    {
        const RemovableDrive empty(L'E');
        CheckLibraryDrive(L'E');
    }
    const RemovableDrive elsewhere(L'E', Kind::kRemovable,
                                   {{L"database.db", LR"(MISC\other.db)"}, false});
    CheckLibraryDrive(L'E');
    CheckLibraryDrive(L'F');  // there is no such drive
    EXPECT_EQ(Launches(), 0u);
    EXPECT_EQ(output.Error(), "");
}

TEST_F(LibraryTest, NothingIsStartedWhileAMainCommunicatorIsConnected) {
    const RemovableDrive drive(L'E', Kind::kRemovable, {kLibrary, false});
    auto main = ConnectAndAsk();
    CheckLibraryDrive(L'E');
    EXPECT_EQ(Launches(), 0u);
    Leave(main);
    CheckLibraryDrive(L'E');
    EXPECT_EQ(Launches(), 1u);
}

TEST_F(LibraryTest, NothingHappensBeforeThereIsAServer) {
    const RemovableDrive drive(L'E', Kind::kRemovable, {kLibrary, false});
    theServer = nullptr;
    CheckLibraryDrive(L'E');
    EXPECT_EQ(Launches(), 0u);
}

}  // namespace
