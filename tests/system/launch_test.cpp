// The start of the desktop application, for cameras and for drives with its library.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <wtsapi32.h>

#include "desktop_application.h"
#include "raw_client.h"
#include "support/plugged_camera.h"
#include "support/removable_drive.h"
#include "system_test.h"
#include "watching_test.h"

namespace system_test {
namespace {

bool MayLaunch(RunMode mode) {
    return mode == RunMode::kServiceManager || MayStartApplication();
}

constexpr char kMayNotLaunch[] =
    "the user who runs the tests may not start programs for the user at the console";

/// How often the service in the foreground has said that it starts the application, once it has
/// done so `least` times. All lines before the last one that the test has waited for count.
std::size_t Launches(RunningService& service, std::size_t least) {
    return service.Output().WaitFor("Launching application...", least).size();
}

bool IsSamePath(const std::wstring& a, const std::wstring& b) {
    return ::CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

/// Whether the user at the console is the one of the record's token.
bool IsConsoleUser(const LaunchRecord& record) {
    HANDLE token = nullptr;
    if (!::WTSQueryUserToken(::WTSGetActiveConsoleSessionId(), &token))
        // Only LocalSystem may ask; the tests are run by the user at the console then.
        ::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &token);
    const UniqueHandle owner(token);
    alignas(TOKEN_USER) std::byte buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
    DWORD size = 0;
    if (!::GetTokenInformation(token, TokenUser, buffer, sizeof(buffer), &size))
        return false;
    LaunchRecord copy = record;  // the call takes no pointer to const
    return ::EqualSid(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, copy.userSid) != FALSE;
}

void ExpectStartedForTheUser(const LaunchRecord& record) {
    EXPECT_EQ(std::wstring(record.desktop), LR"(winsta0\default)");
    EXPECT_EQ(record.flags, DWORD{STARTF_USESHOWWINDOW | STARTF_FORCEONFEEDBACK});
    EXPECT_EQ(record.showWindow, WORD{SW_SHOWNORMAL});
    EXPECT_EQ(record.argumentCount, 1);
    EXPECT_NE(std::wstring(record.userProfile), L"");
    EXPECT_EQ(record.sessionId, ::WTSGetActiveConsoleSessionId());
    EXPECT_FALSE(record.hasConsole);
    EXPECT_TRUE(IsConsoleUser(record));
}

// --- cameras at start-up ---

using StartUpLaunchTest = SystemTest;

TEST_F(StartUpLaunchTest, EachCameraStartsTheApplicationForTheUserAtTheConsole) {
    LaunchReceiver launches;
    PluggedCamera disk(bus, WithClass(vcam::kDiskInterface));
    PluggedCamera cdrom(bus);
    // Under the service control manager: only LocalSystem may start programs for the user.
    RunningService service(RunMode::kServiceManager);
    for (int launch = 0; launch < 2; ++launch)
        ExpectStartedForTheUser(launches.Receive());
}

TEST_F(StartUpLaunchTest, OnlyCamerasAreAReason) {
    PluggedCamera disk(bus, WithClass(vcam::kDiskInterface));
    PluggedCamera cdrom(bus);
    PluggedCamera other(bus, WithVendor("Other"));
    RunningService service;
    if (!MayStartApplication())
        GTEST_SKIP() << kMayNotLaunch;
    // Clients that come, work and go are none, nor is the loss of the main communicator.
    {
        RawClient client;
        EXPECT_EQ(client.ReceiveMessage(), Attached(1));
        EXPECT_EQ(client.ReceiveMessage(), Attached(2));
        EXPECT_EQ(client.Ask(kTransferNoData, 1, 1, TestUnitReady()), Succeeded(1, 1));
        client.Leave();
    }
    service.Output().WaitFor("ServerClient shutdown.");  // all lines before it have come too
    EXPECT_EQ(Launches(service, 2), 2u);
}

TEST_F(StartUpLaunchTest, WithoutACameraNothingIsStarted) {
    PluggedCamera other(bus, WithVendor("Other"));
    RunningService service;
    RawClient client;
    service.Output().WaitFor("ServerClient connected.");
    EXPECT_EQ(Launches(service, 0), 0u);
}

TEST_F(StartUpLaunchTest, ApplicationThatCannotBeStartedDisturbsNothing) {
    const RegisteredApplication missing(TestFolder() + L"\\no such program.exe" + L'\0');
    PluggedCamera camera(bus);
    RunningService service(RunMode::kServiceManager);
    EXPECT_EQ(AnnouncedCameras(), std::vector<std::uint32_t>{1});
}

// --- where the application is ---

/// A copy of the test program at the fixed path, which counts when the registry has no usable
/// value.
class FallbackApplication {
public:
    FallbackApplication() {
        if (std::filesystem::exists(kPath))
            throw std::runtime_error("the desktop application is installed here");
        folderIsNew = std::filesystem::create_directories(kPath.parent_path());
        std::filesystem::copy_file(RecorderPath(), kPath);
    }
    ~FallbackApplication() {
        // The process may be about to end.
        for (const Deadline deadline; !::DeleteFileW(kPath.c_str()) && !deadline.Over();)
            ::Sleep(5);
        if (folderIsNew)
            ::RemoveDirectoryW(kPath.parent_path().c_str());
    }
    FallbackApplication(const FallbackApplication&) = delete;
    FallbackApplication& operator=(const FallbackApplication&) = delete;

    static inline const std::filesystem::path kPath = LR"(c:\Program Files (x86)\Orvik\Orvik.exe)";

private:
    bool folderIsNew = false;
};

/// The path of the test program as a registry value of so many bytes. Windows starts no program by
/// a path of 511 characters, so the text behind the first null only makes the value long.
std::wstring ValueOfBytes(std::size_t bytes) {
    std::wstring value = RecorderPath();
    value.resize(bytes / sizeof(wchar_t));
    return value;
}

struct Registration {
    const char* name;
    std::optional<std::wstring> value;
    bool isUsed;
};

class ApplicationPathTest : public SystemTest, public testing::WithParamInterface<Registration> {};

INSTANTIATE_TEST_SUITE_P(Values, ApplicationPathTest,
                         testing::Values(Registration{"Ordinary", RecorderPath() + L'\0', true},
                                         Registration{"Of1024Bytes", ValueOfBytes(1024), true},
                                         Registration{"Of1026Bytes", ValueOfBytes(1026), false},
                                         Registration{"Empty", std::wstring(1, L'\0'), false},
                                         Registration{"None", std::nullopt, false}),
                         [](const auto& value) { return std::string(value.param.name); });

TEST_P(ApplicationPathTest, NamesTheProgramOrTheFallbackIsTaken) {
    LaunchReceiver launches(GetParam().value);
    FallbackApplication fallback;
    PluggedCamera camera(bus);
    RunningService service(RunMode::kServiceManager);
    const std::wstring started = launches.Receive().program;
    const std::wstring expected =
        GetParam().isUsed ? RecorderPath() : FallbackApplication::kPath.wstring();
    EXPECT_TRUE(IsSamePath(started, expected)) << ToUtf8(started);
}

// --- cameras that come ---

class LaunchTest : public WatchingTest {
protected:
    void SetUp() override {
        if (!MayLaunch(GetParam()))
            GTEST_SKIP() << kMayNotLaunch;
    }

    /// The launches that were received are all: no other program has been started, and in the
    /// foreground the service has said so `count` times.
    void ExpectLaunches(std::size_t count) {
        EXPECT_EQ(launches.Unreceived(), 0u);
        if (GetParam() == RunMode::kForeground) {
            EXPECT_EQ(Launches(service, count), count);
        }
    }

    LaunchReceiver launches;
};
ORVIK_IN_BOTH_MODES(LaunchTest);

TEST_P(LaunchTest, EachCameraThatComesWhileNoClientIsConnectedStartsTheApplication) {
    std::vector<std::unique_ptr<PluggedCamera>> cameras;
    for (int count = 0; count < 3; ++count) {
        cameras.push_back(std::make_unique<PluggedCamera>(bus));
        ExpectStartedForTheUser(launches.Receive());
    }
    ExpectLaunches(3);
    // Not one that goes, and none while a main communicator is connected.
    const std::uint32_t first = nextId;
    RawClient main;
    ExpectAttached(main, 3);
    cameras.pop_back();
    EXPECT_EQ(main.ReceiveMessage(), Detached(first + 2));
    {
        PluggedCamera whileConnected(bus);
        ExpectAttached(main);
    }
    EXPECT_EQ(main.ReceiveMessage(), Detached(first + 3));
    Leave(main, first);
    PluggedCamera again(bus);
    launches.Receive();
    ExpectLaunches(4);
}

TEST_P(LaunchTest, CameraPipesDoNotKeepTheApplicationFromBeingStarted) {
    RawClient main;
    PluggedCamera camera(bus);
    const std::uint32_t id = nextId;
    ExpectAttached(main);
    RawClient pipe;
    EXPECT_EQ(pipe.ReceiveMessage(), Attached(id));
    Leave(main, id);
    PluggedCamera another(bus);
    launches.Receive();
    ExpectLaunches(1);
    EXPECT_TRUE(pipe.RoundTrip());
}

TEST_P(LaunchTest, CamerasThatComeAndGoWithoutAClientAreKnownToTheNextOne) {
    PluggedCamera stays(bus);
    PluggedCamera goes(bus);
    const std::uint32_t id = nextId;
    for (int count = 0; count < 2; ++count)
        launches.Receive();
    goes.Unplug();
    PluggedCamera comes(bus);
    launches.Receive();  // everything before it is done too
    RawClient main;
    EXPECT_EQ(main.ReceiveMessage(), Attached(id));
    EXPECT_EQ(main.ReceiveMessage(), Attached(id + 2));
    EXPECT_TRUE(main.RoundTrip());
}

// --- drives ---

const std::vector<std::wstring> kLibrary{LR"(MISC\database.db)"};

class DriveLaunchTest : public LaunchTest {
protected:
    void SetUp() override {
        LaunchTest::SetUp();
        if (!RemovableDrive::IsSupported())
            GTEST_SKIP() << "no removable drives can be made here";
        if (!IsSkipped())
            SomethingGoes();  // the cameras of the fixture's start
    }

    /// A device of no interest comes: whatever comes makes the service look at the drives. Drives
    /// themselves send no message here.
    void SomethingComes() { others.push_back(std::make_unique<PluggedCamera>(bus, kOther)); }

    /// A device goes, and the service has looked at the drives since: it has heard of a camera that
    /// came afterwards, which stays, so that no look that forgets drives is still to come.
    void SomethingGoes() {
        others.clear();
        RawClient main;
        others.push_back(std::make_unique<PluggedCamera>(bus));
        const std::uint32_t id = nextId++;
        // The removal of the one that went may come later, as a message too.
        while (main.ReceiveMessage() != Attached(id)) {
        }
        LeaveAndWait(main, id);
    }

    /// Disconnects `main`, and waits until the service has handled that: it answers another client
    /// after it. Until then a look at the drives starts no application, and the next drive would
    /// count as seen.
    static void LeaveAndWait(RawClient& main, std::uint32_t cameraId) {
        RawClient pipe;
        pipe.RoundTrip();  // the cameras that are announced to it come before
        Leave(main, cameraId);
        Leave(pipe, cameraId);
    }

    /// A drive with the library comes and starts the application, after all that was before.
    void ExpectLaunchForAnother() {
        const RemovableDrive another(L'T', RemovableDrive::Kind::kRemovable, {kLibrary, false});
        SomethingComes();
        ExpectStartedForTheUser(launches.Receive());
    }

private:
    const vcam::PlugOptions kOther = WithClass(kTapeInterface);
    std::vector<std::unique_ptr<PluggedCamera>> others;
};
ORVIK_IN_BOTH_MODES(DriveLaunchTest);

TEST_P(DriveLaunchTest, DriveThatComesWithTheLibraryStartsTheApplicationOnce) {
    for (const std::vector<std::wstring>& files :
         {std::vector<std::wstring>{LR"(MISC\orviklibrary.db)"},
          {LR"(MISC\database.db)"},
          {LR"(MISC\orviklibrary.db)", LR"(MISC\database.db)"}}) {
        RemovableDrive drive(L'E', RemovableDrive::Kind::kRemovable, {files, false});
        SomethingComes();
        ExpectStartedForTheUser(launches.Receive());
        SomethingComes();  // it is there already
        drive.Disappear();
        SomethingGoes();
    }
    ExpectLaunches(3);
}

TEST_P(DriveLaunchTest, DriveWithoutTheLibraryDoesNot) {
    using Kind = RemovableDrive::Kind;
    const RemovableDrive empty(L'E');
    const RemovableDrive elsewhere(L'F', Kind::kRemovable,
                                   {{LR"(MISC\library.db)", L"database.db"}, false});
    RemovableDrive withoutMedium(L'G', Kind::kRemovable, {kLibrary, true});
    const RemovableDrive fixed(L'H', Kind::kFixed, {kLibrary, false});
    const RemovableDrive dvd(L'I', Kind::kCdrom, {kLibrary, false});
    SomethingComes();
    ExpectLaunchForAnother();
    ExpectLaunches(1);
}

TEST_P(DriveLaunchTest, DriveThatComesBackIsLookedAtAgain) {
    RemovableDrive drive(L'E', RemovableDrive::Kind::kRemovable, {kLibrary, false});
    for (std::size_t times = 1; times <= 3; ++times) {
        SomethingComes();
        launches.Receive();
        ExpectLaunches(times);
        drive.Disappear();
        SomethingGoes();
        drive.Appear();
    }
}

TEST_P(DriveLaunchTest, NothingIsStartedWhileAMainCommunicatorIsConnected) {
    RawClient main;
    EXPECT_EQ(main.ReceiveMessage(), Attached(nextId - 1));  // of SetUp()
    PluggedCamera camera(bus);
    const std::uint32_t id = nextId;
    ExpectAttached(main);
    RemovableDrive drive(L'E', RemovableDrive::Kind::kRemovable, {kLibrary, false});
    SomethingComes();
    PluggedCamera later(bus);  // the drive has been looked at when this one is announced
    ExpectAttached(main);
    LeaveAndWait(main, id);
    ExpectLaunchForAnother();
    ExpectLaunches(1);
}

/// A drive with the library that is there before the service is started.
struct EarlierDrive {
    EarlierDrive() {
        if (!RemovableDrive::IsSupported())
            return;
        drive.emplace(L'E', RemovableDrive::Kind::kRemovable,
                      RemovableDrive::Medium{kLibrary, false});
    }
    std::optional<RemovableDrive> drive;
};

class EarlierDriveTest : protected EarlierDrive, public DriveLaunchTest {};
ORVIK_IN_BOTH_MODES(EarlierDriveTest);

TEST_P(EarlierDriveTest, DriveThatWasThereBeforeIsLookedAtOnlyWhenItComesBack) {
    SomethingComes();
    ExpectLaunchForAnother();
    ExpectLaunches(1);
    drive->Disappear();
    SomethingGoes();
    drive->Appear();
    SomethingComes();
    launches.Receive();
    ExpectLaunches(2);
}

}  // namespace
}  // namespace system_test
