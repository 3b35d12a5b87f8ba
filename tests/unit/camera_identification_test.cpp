#include "device/camera_identification.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <winioctl.h>

#include "import_hook.h"
#include "in_process_service.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::DeviceIoControl) __imp_DeviceIoControl;
extern decltype(&::GlobalAlloc) __imp_GlobalAlloc;
extern decltype(&::GlobalFree) __imp_GlobalFree;
}

namespace {

/// While it lives, each block of GlobalAlloc has no zero in it and ends at a page that faults on
/// access.
class GuardedGlobalBlocks {
public:
    GuardedGlobalBlocks()
        : allocate([](UINT, SIZE_T size) -> HGLOBAL {
              EXPECT_LE(size, kPage);
              auto* const pages = static_cast<char*>(
                  ::VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE, PAGE_NOACCESS));
              ::VirtualAlloc(pages, kPage, MEM_COMMIT, PAGE_READWRITE);
              std::memset(pages, 'x', kPage);
              return pages + kPage - size;
          }),
          free([](HGLOBAL block) -> HGLOBAL {
              MEMORY_BASIC_INFORMATION memory{};
              ::VirtualQuery(block, &memory, sizeof(memory));
              EXPECT_TRUE(::VirtualFree(memory.AllocationBase, 0, MEM_RELEASE));
              return nullptr;
          }) {}

private:
    static constexpr SIZE_T kPage = 4096;
    HookedImport<&__imp_GlobalAlloc> allocate;
    HookedImport<&__imp_GlobalFree> free;
};

class IdentificationTest : public InProcessService {
protected:
    /// What is said of a camera with these strings.
    bool Identify(std::optional<std::string> vendor, std::optional<std::string> product,
                  std::optional<std::string> revision, bool acceptChip = false) {
        vcam::PlugOptions options;
        options.vendor = std::move(vendor);
        options.product = std::move(product);
        options.revision = std::move(revision);
        options.instanceId = L"identified";
        const vcam::CameraId camera = bus.Plug(options);
        const bool answer = IdentifyCamera(bus.InterfacePath(camera).c_str(), acceptChip);
        const vcam::CameraCounters counters = bus.Counters(camera);
        EXPECT_EQ(counters.opens, counters.closes);
        bus.Unplug(camera);
        return answer;
    }

    bool Identify(const vcam::Behaviour& behaviour, bool acceptChip = false) {
        const vcam::CameraId camera = Plug();
        bus.SetBehaviour(camera, behaviour);
        const bool answer = IdentifyCamera(bus.InterfacePath(camera).c_str(), acceptChip);
        bus.Unplug(camera);
        ForgetPlugged();
        return answer;
    }

    /// A descriptor whose three strings follow one another, at the offsets that are given.
    static vcam::Behaviour WithDescriptor(std::size_t size, ULONG sizeField, ULONG vendorOffset,
                                          ULONG revisionOffset, const std::string& strings) {
        std::vector<std::byte> bytes(size);
        STORAGE_DEVICE_DESCRIPTOR head{};
        head.Version = sizeof(head);
        head.Size = sizeField;
        head.VendorIdOffset = vendorOffset;
        head.ProductRevisionOffset = revisionOffset;
        std::memcpy(bytes.data(), &head, std::min(size, sizeof(head)));
        if (size > kStrings)
            std::memcpy(bytes.data() + kStrings, strings.data(),
                        std::min(strings.size(), size - kStrings));
        vcam::Behaviour behaviour;
        behaviour.descriptor = bytes;
        return behaviour;
    }

    static constexpr ULONG kStrings = sizeof(STORAGE_DEVICE_DESCRIPTOR);
};

TEST_F(IdentificationTest, VendorAndRevisionMakeACameraWhateverTheProduct) {
    EXPECT_TRUE(Identify("Orvik", "Virtual Camera", "F01"));
    EXPECT_TRUE(Identify("Orvik", "", "F01"));
    EXPECT_TRUE(Identify("Orvik", std::nullopt, "F01"));
    EXPECT_TRUE(Identify("Orvik", "COACH6 (I62)", "F01"));
}

TEST_F(IdentificationTest, SpacesAroundAreCut) {
    EXPECT_TRUE(Identify("Orvik   ", "x", "F01 "));
    EXPECT_TRUE(Identify("   Orvik", "x", " F01"));
    EXPECT_TRUE(Identify("  Orvik  ", "  x  ", "  F01  "));
}

TEST_F(IdentificationTest, OtherWhiteSpaceIsNotCut) {
    EXPECT_FALSE(Identify("Orvik\t", "x", "F01"));
    EXPECT_FALSE(Identify("Orvik", "x", "F01\n"));
    EXPECT_FALSE(Identify("\tOrvik", "x", "F01"));
}

TEST_F(IdentificationTest, CaseAndEveryCharacterMatter) {
    EXPECT_FALSE(Identify("orvik", "x", "F01"));
    EXPECT_FALSE(Identify("Orvik", "x", "f01"));
    EXPECT_FALSE(Identify("Orvi", "x", "F01"));
    EXPECT_FALSE(Identify("Orvik2", "x", "F01"));
    EXPECT_FALSE(Identify("Orvik", "x", "F010"));
    EXPECT_FALSE(Identify("Orvik", "x", "F02"));
    EXPECT_FALSE(Identify("Or vik", "x", "F01"));
}

TEST_F(IdentificationTest, ChipIdentityCountsOnlyForThoseWhoAskForIt) {
    EXPECT_FALSE(Identify("ZORAN", "COACH6 (I62)", "1.00"));
    EXPECT_TRUE(Identify("ZORAN", "COACH6 (I62)", "1.00", true));
    EXPECT_TRUE(Identify("ZORAN ", " COACH6 (I62) ", std::nullopt, true));
    EXPECT_FALSE(Identify("ZORAN", "COACH6 (I63)", "F01", true));
    EXPECT_FALSE(Identify("Zoran", "COACH6 (I62)", "1.00", true));
    EXPECT_FALSE(Identify("ZORAN", "COACH6 (I62)", "F01", false));
    EXPECT_TRUE(Identify("Orvik", "x", "F01", true));
}

TEST_F(IdentificationTest, AbsentStringsAreEmptyAndNoCamera) {
    EXPECT_FALSE(Identify(std::nullopt, "x", "F01"));
    EXPECT_FALSE(Identify("Orvik", "x", std::nullopt));
    EXPECT_FALSE(Identify(std::nullopt, std::nullopt, std::nullopt));
    EXPECT_FALSE(Identify("", "", ""));
    EXPECT_FALSE(Identify("     ", " ", "   "));
    EXPECT_FALSE(Identify(std::nullopt, "COACH6 (I62)", "F01", true));
}

TEST_F(IdentificationTest, ShortAnswersAreNoCamera) {
    for (const std::uint32_t count : {0u, 1u, 7u}) {
        vcam::Behaviour behaviour;
        behaviour.descriptorHeaderBytes = count;
        EXPECT_FALSE(Identify(behaviour)) << count << " bytes of the header";
    }
    for (const std::uint32_t count : {0u, 8u, 20u, 41u}) {
        vcam::Behaviour behaviour;
        behaviour.descriptorBytes = count;
        EXPECT_FALSE(Identify(behaviour)) << count << " bytes of the descriptor";
    }
    EXPECT_TRUE(Identify(vcam::Behaviour{}));
}

TEST_F(IdentificationTest, OffsetsOutsideTheDescriptorAreTakenForAbsentStrings) {
    const std::string strings("Orvik\0F01\0", 10);
    const ULONG size = kStrings + 10;
    EXPECT_TRUE(Identify(WithDescriptor(size, size, kStrings, kStrings + 6, strings)));
    for (const ULONG wrong : {size, size + 1, 0x1000ul, 0x7FFFFFFFul, 0x80000000ul, 0xFFFFFFFFul}) {
        SCOPED_TRACE(wrong);
        EXPECT_FALSE(Identify(WithDescriptor(size, size, wrong, kStrings + 6, strings)));
        EXPECT_FALSE(Identify(WithDescriptor(size, size, kStrings, wrong, strings)));
    }
}

TEST_F(IdentificationTest, StringWithoutItsEndStopsAtTheDescriptorsEnd) {
    const GuardedGlobalBlocks guard;
    // The revision's NUL would be behind the last byte.
    const std::string strings("Orvik\0F01", 9);
    const ULONG size = kStrings + 9;
    EXPECT_TRUE(Identify(WithDescriptor(size, size, kStrings, kStrings + 6, strings)));
    // Spaces up to the very end.
    const std::string spaces("Orvik\0   ", 9);
    EXPECT_FALSE(Identify(WithDescriptor(size, size, kStrings, kStrings + 6, spaces)));
}

TEST_F(IdentificationTest, OddSizesOfTheDescriptorAreNoCamera) {
    const GuardedGlobalBlocks guard;
    // The vendor's offset ends at 16, the product's at 20, the revision's at 24.
    for (const ULONG size : {0ul, 1ul, 8ul, 12ul, 13ul, 14ul, 17ul, 18ul, 21ul, 22ul, 35ul}) {
        SCOPED_TRACE(size);
        EXPECT_FALSE(Identify(WithDescriptor(std::max<std::size_t>(size, 8), size, 1, 1, "")));
    }
    // Says that it is longer than it is.
    const std::string strings("Orvik\0F01\0", 10);
    EXPECT_FALSE(
        Identify(WithDescriptor(kStrings + 10, kStrings + 11, kStrings, kStrings + 6, strings)));
}

TEST_F(IdentificationTest, PathThatCannotBeOpenedOrAskedIsNoCamera) {
    EXPECT_FALSE(IdentifyCamera(LR"(\\?\no#such#device)", false));
    EXPECT_FALSE(IdentifyCamera(L"", true));
    EXPECT_FALSE(IdentifyCamera(LR"(C:\windows)", true));
    EXPECT_FALSE(IdentifyCamera(LR"(C:\windows\system32\kernel32.dll)", true));
}

TEST_F(IdentificationTest, CameraInUseIsStillIdentified) {
    const vcam::CameraId camera = Plug();
    const std::wstring path = bus.InterfacePath(camera);
    const UniqueHandle user = OwnFile(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                                    nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(user);
    EXPECT_TRUE(IdentifyCamera(path.c_str(), false));
}

/// What IdentifyCamera calls, which goes through to Windows unless a step is to fail.
class IdentificationCalls {
public:
    enum class Failing { kNothing, kOpen, kHeader, kShortHeader, kDescriptor, kShortDescriptor };

    IdentificationCalls()
        : open([this](const wchar_t* name, DWORD access, DWORD share, SECURITY_ATTRIBUTES* security,
                      DWORD creation, DWORD flags, HANDLE pattern) {
              EXPECT_EQ(name, path);
              EXPECT_EQ(access, 0u);
              EXPECT_EQ(share, 0u);
              EXPECT_EQ(security, nullptr);
              EXPECT_EQ(creation, 3u);  // OPEN_EXISTING
              EXPECT_EQ(flags, 0u);
              EXPECT_EQ(pattern, nullptr);
              calls += "open ";
              device = failing == Failing::kOpen
                           ? INVALID_HANDLE_VALUE
                           : decltype(open)::Original(name, access, share, security, creation,
                                                      flags, pattern);
              return device;
          }),
          control([this](HANDLE handle, DWORD code, void* in, DWORD inSize, void* out,
                         DWORD outSize, DWORD* returned, OVERLAPPED* overlapped) {
              EXPECT_EQ(handle, device);
              EXPECT_EQ(code, 0x2D1400u);
              EXPECT_EQ(std::string(static_cast<const char*>(in), inSize), std::string(12, '\0'));
              EXPECT_NE(returned, nullptr);
              EXPECT_EQ(overlapped, nullptr);
              const bool isHeader = calls == "open ";
              EXPECT_EQ(outSize, isHeader ? 8 : size);
              calls += isHeader ? "header " : "descriptor ";
              const BOOL result = decltype(control)::Original(handle, code, in, inSize, out,
                                                              outSize, returned, overlapped);
              if (isHeader)
                  size = static_cast<const STORAGE_DESCRIPTOR_HEADER*>(out)->Size;
              if (failing == (isHeader ? Failing::kShortHeader : Failing::kShortDescriptor))
                  --*returned;
              // All of it came, and yet the call has failed.
              return failing == (isHeader ? Failing::kHeader : Failing::kDescriptor) ? FALSE
                                                                                     : result;
          }),
          close([this](HANDLE handle) {
              calls += handle == device ? "close" : "close another";
              return decltype(close)::Original(handle);
          }) {}

    std::wstring path;
    Failing failing = Failing::kNothing;
    std::string calls;

private:
    HANDLE device = nullptr;
    DWORD size = 0;  // of the descriptor, as its header says
    HookedImport<&__imp_CreateFileW> open;
    HookedImport<&__imp_DeviceIoControl> control;
    HookedImport<&__imp_CloseHandle> close;
};

TEST_F(IdentificationTest, AsksInTwoStepsWithoutAccessAndClosesTheHandleOnEveryPath) {
    vcam::PlugOptions strange;
    strange.vendor = "Other";
    const std::wstring camera = bus.InterfacePath(Plug());
    const std::wstring stranger = bus.InterfacePath(Plug(strange));
    using Failing = IdentificationCalls::Failing;
    const struct {
        std::wstring path;
        Failing failing;
        bool answer;
        const char* calls;
    } cases[] = {
        {camera, Failing::kNothing, true, "open header descriptor close"},
        {stranger, Failing::kNothing, false, "open header descriptor close"},
        {camera, Failing::kOpen, false, "open "},
        {camera, Failing::kHeader, false, "open header close"},
        {camera, Failing::kShortHeader, false, "open header close"},
        {camera, Failing::kDescriptor, false, "open header descriptor close"},
        {camera, Failing::kShortDescriptor, false, "open header descriptor close"},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(std::to_string(static_cast<int>(one.failing)));
        IdentificationCalls calls;
        calls.path = one.path;
        calls.failing = one.failing;
        EXPECT_EQ(IdentifyCamera(one.path.c_str(), false), one.answer);
        EXPECT_EQ(calls.calls, one.calls);
    }
}

TEST(TrimSpaces, CutsSpacesAtBothEndsInPlace) {
    const auto trim = [](std::string text) {
        char* const start = TrimSpaces(text.data());
        EXPECT_GE(start, text.data());
        EXPECT_LE(start, text.data() + text.size());
        return std::string(start);
    };
    EXPECT_EQ(trim(""), "");
    EXPECT_EQ(trim(" "), "");
    EXPECT_EQ(trim("     "), "");
    EXPECT_EQ(trim("a"), "a");
    EXPECT_EQ(trim(" a"), "a");
    EXPECT_EQ(trim("a "), "a");
    EXPECT_EQ(trim("  a b  "), "a b");
    EXPECT_EQ(trim("\ta\t"), "\ta\t");
    EXPECT_EQ(trim(" \ta\n "), "\ta\n");
    char text[] = "  ab   ";
    EXPECT_EQ(TrimSpaces(text), text + 2);
    EXPECT_EQ(std::string(text, sizeof(text)), std::string("  ab\0\0\0\0", 8));
}

}  // namespace
