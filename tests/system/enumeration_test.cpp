// Which devices the service takes for cameras when it starts, and the launch of the desktop
// application for them.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

// After <windows.h>, whose types it uses.
#include <winioctl.h>

#include "launch_record.h"
#include "plugged_camera.h"
#include "raw_client.h"
#include "service_fixture.h"

namespace system_test {
namespace {

/// The interface class of tapes: storage, but none that the service looks at.
/// {53F5630B-B6BF-11D0-94F2-00A0C91EFB8B}
constexpr GUID kTapeInterface = {
    0x53f5630b, 0xb6bf, 0x11d0, {0x94, 0xf2, 0x00, 0xa0, 0xc9, 0x1e, 0xfb, 0x8b}};

vcam::PlugOptions WithClass(const GUID& interfaceClass) {
    vcam::PlugOptions options;
    options.interfaceClass = interfaceClass;
    return options;
}

/// What a client is told when it connects, in order: the identifiers of the cameras.
std::vector<std::uint32_t> AnnouncedCameras() {
    RawClient client;
    client.Send(HeaderBytes({kTransferNoData, 0, 0, 0}));
    std::vector<std::uint32_t> identifiers;
    for (;;) {
        const Message message = client.ReceiveMessage();
        if (message == Failed(0, 0))
            return identifiers;
        EXPECT_EQ(message, Attached(message.header.cameraId));
        identifiers.push_back(message.header.cameraId);
    }
}

using Identifiers = std::vector<std::uint32_t>;

class EnumerationTest : public SystemTest {
protected:
    /// Starts the service and tells how many cameras it has found.
    Identifiers Found() {
        const RunningService service;
        return AnnouncedCameras();
    }
};

TEST_F(EnumerationTest, NothingPluggedIsNoCamera) {
    EXPECT_EQ(Found(), Identifiers());
}

TEST_F(EnumerationTest, DisksAndCdromsAreRecordedInAscendingOrderDisksFirst) {
    PluggedCamera cdrom(bus, WithClass(vcam::kCdromInterface));
    PluggedCamera disk(bus, WithClass(vcam::kDiskInterface));
    PluggedCamera otherDisk(bus, WithClass(vcam::kDiskInterface));
    PluggedCamera tape(bus, WithClass(kTapeInterface));
    RunningService service;
    RawClient client;
    for (std::uint32_t id = 1; id <= 3; ++id)
        EXPECT_EQ(client.ReceiveMessage(), Attached(id));
    EXPECT_TRUE(client.RoundTrip());

    // The third is the CD-ROM.
    EXPECT_EQ(client.Ask(kTransferNoData, 1, 3, TestUnitReady()), Succeeded(1, 3));
    EXPECT_EQ(cdrom.Counters().requests, 1u);

    const auto lineOf = [&](const PluggedCamera& plugged) {
        return "DeviceArrival: " + Narrow(bus.InterfacePath(plugged.Id()));
    };
    service.Output().WaitFor(lineOf(cdrom));  // the last of them
    const std::vector<std::string> lines = service.Output().Lines();
    const auto position = [&](const PluggedCamera& plugged) {
        return std::find(lines.begin(), lines.end(), lineOf(plugged)) - lines.begin();
    };
    EXPECT_LT(position(disk), position(cdrom)) << service.Output().Text();
    EXPECT_LT(position(otherDisk), position(cdrom)) << service.Output().Text();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), lineOf(tape)), 0);
}

TEST_F(EnumerationTest, TwelveCamerasAreAnnouncedInAscendingOrder) {
    std::vector<std::unique_ptr<PluggedCamera>> cameras;
    Identifiers expected;
    for (std::uint32_t id = 1; id <= 12; ++id) {
        cameras.push_back(std::make_unique<PluggedCamera>(bus));
        expected.push_back(id);
    }
    EXPECT_EQ(Found(), expected);
}

// --- identity ---

/// The strings that a device reports, and whether it is a camera of ours.
struct Identity {
    const char* name;
    std::optional<std::string> vendor;
    std::optional<std::string> product;
    std::optional<std::string> revision;
    bool isCamera;
};

class IdentityTest : public EnumerationTest, public testing::WithParamInterface<Identity> {};

TEST_P(IdentityTest, DecidesWhetherItIsACamera) {
    vcam::PlugOptions options;
    options.vendor = GetParam().vendor;
    options.product = GetParam().product;
    options.revision = GetParam().revision;
    PluggedCamera camera(bus, options);
    EXPECT_EQ(Found(), GetParam().isCamera ? Identifiers{1} : Identifiers());
    const vcam::CameraCounters counters = camera.Counters();
    EXPECT_EQ(counters.opens, 1u);  // looked at once
    EXPECT_EQ(counters.closes, 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Devices, IdentityTest,
    testing::Values(Identity{"Ours", "Orvik", "Virtual Camera", "F01", true},
                    Identity{"OursWithAnyProduct", "Orvik", "\x01?", "F01", true},
                    Identity{"OursWithoutProduct", "Orvik", std::nullopt, "F01", true},
                    Identity{"OursPadded", "Orvik   ", "Camera          ", "F01 ", true},
                    Identity{"OursPaddedInFront", "  Orvik", "Camera", " F01 ", true},
                    Identity{"PaddedWithTabs", "Orvik\t", "Camera", "F01", false},
                    Identity{"LowerCaseVendor", "orvik", "Camera", "F01", false},
                    Identity{"LowerCaseRevision", "Orvik", "Camera", "f01", false},
                    Identity{"LongerVendor", "Orvik2", "Camera", "F01", false},
                    Identity{"ShorterVendor", "Orvi", "Camera", "F01", false},
                    Identity{"LongerRevision", "Orvik", "Camera", "F011", false},
                    Identity{"OtherRevision", "Orvik", "Camera", "F02", false},
                    Identity{"EmptyVendor", "", "Camera", "F01", false},
                    Identity{"WithoutVendor", std::nullopt, "Camera", "F01", false},
                    Identity{"WithoutRevision", "Orvik", "Camera", std::nullopt, false},
                    Identity{"WithoutStrings", std::nullopt, std::nullopt, std::nullopt, false},
                    Identity{"ChipAlone", "ZORAN", "COACH6 (I62)", "1.00", false},
                    Identity{"ChipWithOurRevision", "ZORAN", "COACH6 (I62)", "F01", false}),
    [](const auto& identity) { return std::string(identity.param.name); });

/// A change to what the descriptor query of an otherwise right camera returns.
struct Answer {
    const char* name;
    vcam::Behaviour behaviour;
    bool isCamera;
};

/// A descriptor with our strings behind each other, whose fields can then be falsified.
struct DescriptorBytes {
    static constexpr std::uint32_t kVendor = sizeof(STORAGE_DEVICE_DESCRIPTOR);
    static constexpr std::uint32_t kProduct = kVendor + 6;
    static constexpr std::uint32_t kRevision = kProduct + 7;
    static constexpr std::uint32_t kSize = kRevision + 4;

    DescriptorBytes() : bytes(kSize) {
        SetField(offsetof(STORAGE_DEVICE_DESCRIPTOR, Version), sizeof(STORAGE_DEVICE_DESCRIPTOR));
        SetField(offsetof(STORAGE_DEVICE_DESCRIPTOR, Size), kSize);
        SetField(offsetof(STORAGE_DEVICE_DESCRIPTOR, VendorIdOffset), kVendor);
        SetField(offsetof(STORAGE_DEVICE_DESCRIPTOR, ProductIdOffset), kProduct);
        SetField(offsetof(STORAGE_DEVICE_DESCRIPTOR, ProductRevisionOffset), kRevision);
        std::memcpy(bytes.data() + kVendor, "Orvik", 6);
        std::memcpy(bytes.data() + kProduct, "Camera", 7);
        std::memcpy(bytes.data() + kRevision, "F01", 4);
    }

    DescriptorBytes& SetField(std::size_t offset, std::uint32_t value) {
        std::memcpy(bytes.data() + offset, &value, sizeof(value));
        return *this;
    }

    vcam::Behaviour AsBehaviour() const {
        vcam::Behaviour behaviour;
        behaviour.descriptor = bytes;
        return behaviour;
    }

    Bytes bytes;
};

vcam::Behaviour HeaderBytesOf(std::uint32_t count) {
    vcam::Behaviour behaviour;
    behaviour.descriptorHeaderBytes = count;
    return behaviour;
}

vcam::Behaviour DescriptorCutTo(std::uint32_t count) {
    vcam::Behaviour behaviour;
    behaviour.descriptorBytes = count;
    return behaviour;
}

vcam::Behaviour WithField(std::size_t offset, std::uint32_t value) {
    return DescriptorBytes().SetField(offset, value).AsBehaviour();
}

/// The revision, and nothing behind it that ends it: the descriptor ends with its last character.
vcam::Behaviour WithUnendedRevision() {
    DescriptorBytes descriptor;
    descriptor.bytes.pop_back();
    descriptor.SetField(offsetof(STORAGE_DEVICE_DESCRIPTOR, Size), DescriptorBytes::kSize - 1);
    return descriptor.AsBehaviour();
}

class DescriptorAnswer : public EnumerationTest, public testing::WithParamInterface<Answer> {};

TEST_P(DescriptorAnswer, DecidesWhetherItIsACamera) {
    PluggedCamera camera(bus);
    camera.Set(GetParam().behaviour);
    PluggedCamera other(bus);  // found whatever the first one answers
    EXPECT_EQ(Found().size(), GetParam().isCamera ? 2u : 1u);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, DescriptorAnswer,
    testing::Values(
        Answer{"AsItIs", DescriptorBytes().AsBehaviour(), true},
        Answer{"SevenBytesOfHeader", HeaderBytesOf(7), false},
        Answer{"NoHeader", HeaderBytesOf(0), false},
        Answer{"NoDescriptor", DescriptorCutTo(0), false},
        Answer{"HeaderInPlaceOfDescriptor", DescriptorCutTo(8), false},
        Answer{"OneByteTooFew",
               [] {
                   vcam::Behaviour behaviour = DescriptorBytes().AsBehaviour();
                   behaviour.descriptorBytes = DescriptorBytes::kSize - 1;
                   return behaviour;
               }(),
               false},
        Answer{"SizeBeyondItsBytes",
               WithField(offsetof(STORAGE_DEVICE_DESCRIPTOR, Size), DescriptorBytes::kSize + 1),
               false},
        Answer{"SizeZero", WithField(offsetof(STORAGE_DEVICE_DESCRIPTOR, Size), 0), false},
        Answer{"SizeOfTheHeaderOnly", WithField(offsetof(STORAGE_DEVICE_DESCRIPTOR, Size), 8),
               false},
        Answer{"HugeSize", WithField(offsetof(STORAGE_DEVICE_DESCRIPTOR, Size), 0xFFFFFFFF), false},
        Answer{
            "VendorBeyondTheEnd",
            WithField(offsetof(STORAGE_DEVICE_DESCRIPTOR, VendorIdOffset), DescriptorBytes::kSize),
            false},
        Answer{"VendorFarBeyondTheEnd",
               WithField(offsetof(STORAGE_DEVICE_DESCRIPTOR, VendorIdOffset), 0xFFFFFFF0), false},
        Answer{"ProductBeyondTheEnd",
               WithField(offsetof(STORAGE_DEVICE_DESCRIPTOR, ProductIdOffset), 0x7FFFFFFF), true},
        Answer{"RevisionBeyondTheEnd",
               WithField(offsetof(STORAGE_DEVICE_DESCRIPTOR, ProductRevisionOffset), 0x80000000),
               false},
        Answer{"RevisionWithoutAnEnd", WithUnendedRevision(), true}),
    [](const auto& answer) { return std::string(answer.param.name); });

// --- the desktop application ---

/// Registers an application as the desktop application for a while, and what was there before
/// afterwards.
class RegisteredApplication {
public:
    explicit RegisteredApplication(const std::wstring& path) {
        HKEY opened = nullptr;
        DWORD disposition = 0;
        if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              &opened, &disposition) != ERROR_SUCCESS)
            throw std::runtime_error("cannot write the registry");
        key = opened;
        isNew = disposition == REG_CREATED_NEW_KEY;
        wchar_t value[2048] = {};
        DWORD size = sizeof(value) - sizeof(wchar_t);
        if (::RegQueryValueExW(key, nullptr, nullptr, nullptr, reinterpret_cast<BYTE*>(value),
                               &size) == ERROR_SUCCESS)
            previous = value;
        Write(path);
    }

    ~RegisteredApplication() {
        if (previous)
            Write(*previous);
        else
            ::RegDeleteValueW(key, nullptr);
        ::RegCloseKey(key);
        if (isNew)
            ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kKey);
    }

    RegisteredApplication(const RegisteredApplication&) = delete;
    RegisteredApplication& operator=(const RegisteredApplication&) = delete;

private:
    static constexpr wchar_t kKey[] =
        LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\App Paths\Orvik.exe)";

    void Write(const std::wstring& path) const {
        ::RegSetValueExW(key, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(path.c_str()),
                         static_cast<DWORD>((path.size() + 1) * sizeof(wchar_t)));
    }

    HKEY key = nullptr;
    bool isNew = false;
    std::optional<std::wstring> previous;
};

/// What the stand-in for the desktop application tells about its starts.
class LaunchReceiver {
public:
    LaunchReceiver() {
        // Anybody may write: the program runs as the user at the console, with that user's rights.
        SECURITY_DESCRIPTOR everybody{};
        ::InitializeSecurityDescriptor(&everybody, SECURITY_DESCRIPTOR_REVISION);
        ::SetSecurityDescriptorDacl(&everybody, TRUE, nullptr, FALSE);
        SECURITY_ATTRIBUTES attributes{sizeof(attributes), &everybody, FALSE};
        const auto milliseconds = std::chrono::milliseconds(kDeadline).count();
        mailslot = OwnFile(::CreateMailslotW(kLaunchMailslot, sizeof(LaunchRecord),
                                             static_cast<DWORD>(milliseconds), &attributes));
        if (!mailslot)
            throw std::runtime_error("cannot make the mailslot");
    }

    /// Waits for the next one.
    LaunchRecord Receive() {
        LaunchRecord record{};
        DWORD count = 0;
        if (!::ReadFile(mailslot.get(), &record, sizeof(record), &count, nullptr) ||
            count != sizeof(record))
            throw std::runtime_error("the application has not been started");
        return record;
    }

private:
    UniqueHandle mailslot;
};

/// How often the service in the foreground has said that it starts the application.
std::ptrdiff_t Launches(RunningService& service) {
    const std::vector<std::string> lines = service.Output().Lines();
    return std::count(lines.begin(), lines.end(), "Launching application...");
}

using LaunchTest = SystemTest;

TEST_F(LaunchTest, EachCameraAtStartUpStartsTheApplicationOnTheUsersDesktop) {
    LaunchReceiver launches;
    const RegisteredApplication application(TestFolder() + L"\\launch_recorder.exe");
    PluggedCamera disk(bus, WithClass(vcam::kDiskInterface));
    PluggedCamera cdrom(bus);
    // Under the service control manager: only LocalSystem may start programs for the user.
    RunningService service(RunMode::kServiceManager);
    for (int launch = 0; launch < 2; ++launch) {
        const LaunchRecord record = launches.Receive();
        EXPECT_EQ(std::wstring(record.desktop), LR"(winsta0\default)");
        EXPECT_EQ(record.flags, DWORD{STARTF_USESHOWWINDOW | STARTF_FORCEONFEEDBACK});
        EXPECT_EQ(record.showWindow, WORD{SW_SHOWNORMAL});
        EXPECT_EQ(record.argumentCount, 1);
        EXPECT_NE(std::wstring(record.userProfile), L"");
        EXPECT_EQ(record.sessionId, ::WTSGetActiveConsoleSessionId());
        EXPECT_FALSE(record.hasConsole);
    }
}

TEST_F(LaunchTest, OnlyCamerasAtStartUpAreAReason) {
    PluggedCamera disk(bus, WithClass(vcam::kDiskInterface));
    PluggedCamera cdrom(bus);
    PluggedCamera other(bus, [] {
        vcam::PlugOptions options;
        options.vendor = "Other";
        return options;
    }());
    RunningService service;
    if (!MayStartApplication())
        GTEST_SKIP() << "whoever runs the tests may not start programs for the user";
    // Clients that come, work and go are none, nor is the loss of the main communicator.
    {
        RawClient client;
        EXPECT_EQ(client.ReceiveMessage(), Attached(1));
        EXPECT_EQ(client.ReceiveMessage(), Attached(2));
        EXPECT_EQ(client.Ask(kTransferNoData, 1, 1, TestUnitReady()), Succeeded(1, 1));
    }
    service.Output().WaitFor("ServerClient shutdown.");  // all lines before it have come too
    EXPECT_EQ(Launches(service), 2);
}

TEST_F(LaunchTest, WithoutACameraNothingIsStarted) {
    PluggedCamera other(bus, [] {
        vcam::PlugOptions options;
        options.revision = "F02";
        return options;
    }());
    RunningService service;
    RawClient client;
    service.Output().WaitFor("ServerClient connected.");
    EXPECT_EQ(Launches(service), 0);
}

TEST_F(LaunchTest, ApplicationThatCannotBeStartedDisturbsNothing) {
    const RegisteredApplication missing(TestFolder() + L"\\no such program.exe");
    PluggedCamera camera(bus);
    RunningService service(RunMode::kServiceManager);
    EXPECT_EQ(AnnouncedCameras(), Identifiers{1});
}

}  // namespace
}  // namespace system_test
