// Which devices the service takes for cameras when it starts.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

// After <windows.h>, whose types it uses.
#include <winioctl.h>

#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {
namespace {

using Identifiers = std::vector<std::uint32_t>;

class EnumerationTest : public SystemTest {
protected:
    /// Starts the service; the number of cameras that it has found.
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
        return "DeviceArrival: " + ToUtf8(bus.InterfacePath(plugged.Id()));
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

TEST_F(EnumerationTest, CameraThatIsADiskAndACdromIsTwoCameras) {
    vcam::PlugOptions options = WithClass(vcam::kCdromInterface);
    options.secondClass = vcam::kDiskInterface;
    PluggedCamera camera(bus, options);
    RunningService service;
    RawClient client;
    for (const std::uint32_t id : {1U, 2U})
        EXPECT_EQ(client.ReceiveMessage(), Attached(id));
    EXPECT_TRUE(client.RoundTrip());
    RawClient other;
    for (const std::uint32_t id : {1U, 2U})
        EXPECT_EQ(other.ReceiveMessage(), Attached(id));

    // Both are the same device, opened once for each.
    const vcam::CameraCounters before = camera.Counters();
    EXPECT_EQ(client.Ask(kTransferNoData, 1, 1, TestUnitReady()), Succeeded(1, 1));
    EXPECT_EQ(other.Ask(kTransferNoData, 2, 2, TestUnitReady()), Succeeded(2, 2));
    EXPECT_EQ(camera.Counters().opens, before.opens + 2);
    EXPECT_EQ(camera.Counters().closes, before.closes);
    EXPECT_EQ(camera.Counters().requests, 2u);
    EXPECT_TRUE(service.IsRunning());
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
    PluggedCamera other(bus);  // found with every answer of the first one
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

}  // namespace
}  // namespace system_test
