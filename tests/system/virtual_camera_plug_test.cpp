// Plugging and unplugging virtual cameras.

#include <windows.h>

#include <setupapi.h>
#include <winternl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "virtual_camera_fixture.h"

namespace camera_test {
namespace {

using std::chrono::steady_clock;

std::vector<std::wstring> PathsOfClass(const GUID& guid) {
    std::vector<std::wstring> paths;
    const HDEVINFO list =
        ::SetupDiGetClassDevsW(&guid, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    SP_DEVICE_INTERFACE_DATA data = {};
    data.cbSize = sizeof(data);
    for (DWORD i = 0; ::SetupDiEnumDeviceInterfaces(list, nullptr, &guid, i, &data); ++i) {
        alignas(8) std::array<std::byte, 2048> memory = {};
        auto* const detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(memory.data());
        detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
        if (::SetupDiGetDeviceInterfaceDetailW(list, &data, detail, sizeof(memory), nullptr,
                                               nullptr))
            paths.emplace_back(detail->DevicePath);
    }
    ::SetupDiDestroyDeviceInfoList(list);
    return paths;
}

bool Contains(const std::vector<std::wstring>& paths, const std::wstring& path) {
    return std::find(paths.begin(), paths.end(), path) != paths.end();
}

TEST_F(VirtualCamera, PlugShowsTheInterfaceAndUnplugTakesItAway) {
    const vcam::CameraId camera = bus.Plug();
    const std::wstring path = bus.InterfacePath(camera);
    EXPECT_TRUE(Contains(PathsOfClass(vcam::kCdromInterface), path));
    EXPECT_TRUE(Open(path)) << ::GetLastError();

    bus.Unplug(camera);
    EXPECT_FALSE(Contains(PathsOfClass(vcam::kCdromInterface), path));
    EXPECT_FALSE(Open(path));
    EXPECT_TRUE(bus.List().empty());
}

TEST_F(VirtualCamera, EachCameraHasTheInterfaceClassThatWasAskedFor) {
    constexpr GUID kOther = {0x0a1b2c3d, 0x1111, 0x2222, {3, 3, 4, 4, 5, 5, 6, 6}};
    for (const GUID& guid : {vcam::kCdromInterface, vcam::kDiskInterface, kOther}) {
        vcam::PlugOptions options;
        options.interfaceClass = guid;
        const std::wstring path = bus.InterfacePath(bus.Plug(options));
        EXPECT_TRUE(Contains(PathsOfClass(guid), path));
        EXPECT_TRUE(Open(path)) << ::GetLastError();
    }
}

TEST_F(VirtualCamera, ListShowsWhatWasPlugged) {
    vcam::PlugOptions options;
    options.vendor = std::nullopt;
    options.product = "";
    options.revision = " 1 ";
    options.interfaceClass = vcam::kDiskInterface;
    options.instanceId = L"Front-Door";
    options.blockCount = 7;
    const vcam::CameraId first = bus.Plug(options);
    const vcam::CameraId second = bus.Plug();
    const std::vector<vcam::CameraInfo> list = bus.List();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].id, first);
    EXPECT_EQ(list[0].options.vendor, options.vendor);
    EXPECT_EQ(list[0].options.product, options.product);
    EXPECT_EQ(list[0].options.revision, options.revision);
    EXPECT_TRUE(::IsEqualGUID(list[0].options.interfaceClass, vcam::kDiskInterface));
    EXPECT_EQ(list[0].options.instanceId, L"Front-Door");
    EXPECT_EQ(list[0].options.blockCount, 7u);
    EXPECT_EQ(list[1].id, second);
    EXPECT_FALSE(list[1].options.instanceId.empty());
}

TEST_F(VirtualCamera, TheInstanceIdIsAPartOfThePath) {
    vcam::PlugOptions options;
    options.instanceId = L"TEST-7";
    std::wstring path = bus.InterfacePath(bus.Plug(options));
    std::transform(path.begin(), path.end(), path.begin(), ::towlower);
    EXPECT_NE(path.find(L"#test-7#"), std::wstring::npos);
}

TEST_F(VirtualCamera, AnInstanceIdOutsideAsciiCanBeOpenedWhereTheSystemAllowsIt) {
    vcam::PlugOptions options;
    options.instanceId = L"k\u00e4mera-\u6444";
    if (!RunsOnWine()) {
        EXPECT_EQ(CodeThrownBy([&] { bus.Plug(options); }), ERROR_INVALID_PARAMETER);
        return;
    }
    const std::wstring path = bus.InterfacePath(bus.Plug(options));
    EXPECT_NE(path.find(L'\u6444'), std::wstring::npos);
    EXPECT_TRUE(Open(path)) << ::GetLastError();
}

TEST_F(VirtualCamera, AnInstanceIdThatIsPluggedIsRefusedAndCanBePluggedAgainLater) {
    vcam::PlugOptions options;
    options.instanceId = L"Twice";
    const vcam::CameraId first = bus.Plug(options);
    options.instanceId = L"tWICE";
    EXPECT_EQ(CodeThrownBy([&] { bus.Plug(options); }), ERROR_ALREADY_EXISTS);
    const std::wstring path = bus.InterfacePath(first);
    const UniqueHandle stillOpen = Open(path);
    bus.Unplug(first);
    const vcam::CameraId second = bus.Plug(options);
    EXPECT_NE(second, first);
    EXPECT_EQ(bus.InterfacePath(second), path);
    EXPECT_TRUE(Open(path)) << ::GetLastError();
}

TEST_F(VirtualCamera, BadOptionsAreRefused) {
    const auto codeFor = [&](const std::function<void(vcam::PlugOptions&)>& change) {
        vcam::PlugOptions options;
        change(options);
        return CodeThrownBy([&] { bus.Plug(options); });
    };
    EXPECT_EQ(codeFor([](auto& o) { o.blockCount = 0; }), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(codeFor([](auto& o) { o.blockCount = 131073; }), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(codeFor([](auto& o) { o.vendor = std::string(256, 'x'); }), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(codeFor([](auto& o) { o.instanceId = L"a\\b"; }), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(codeFor([](auto& o) { o.instanceId = std::wstring(61, L'x'); }),
              ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(bus.List().empty());
}

/// Takes the name of a camera's interface, so that no camera can offer it. The object with that
/// name is a directory, because Wine may take a symbolic link of another program for the camera's
/// own.
UniqueHandle TakeInterfaceName(const std::wstring& path) {
    // The kernel's spelling of the directory that "\\\\?\\" stands for.
    std::wstring name = L"\\??\\Global\\" + path.substr(4);
    const auto bytes = static_cast<USHORT>(name.size() * sizeof(wchar_t));
    UNICODE_STRING text{bytes, bytes, name.data()};
    OBJECT_ATTRIBUTES attributes = {};
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    constexpr ACCESS_MASK kAllAccess = STANDARD_RIGHTS_REQUIRED | 0xF;  // DIRECTORY_ALL_ACCESS
    using Create = NTSTATUS(NTAPI*)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*);
    const auto create = NtFunction<Create>("NtCreateDirectoryObject");
    HANDLE directory = nullptr;
    EXPECT_EQ(create(&directory, kAllAccess, &attributes), 0);
    return UniqueHandle(directory);
}

TEST_F(VirtualCamera, ACameraThatCannotBeStartedIsUnpluggedAgain) {
    vcam::PlugOptions options;
    options.instanceId = L"Blocked";
    const vcam::CameraId before = bus.Plug(options);
    const std::wstring path = bus.InterfacePath(before);
    bus.Unplug(before);
    UniqueHandle taken = TakeInterfaceName(path);
    for (int i = 0; i < 3; ++i) {
        const int code = CodeThrownBy([&] { bus.Plug(options); });
        EXPECT_NE(code, 0);
        EXPECT_NE(code, ERROR_TIMEOUT);
        EXPECT_NE(code, ERROR_DEVICE_NOT_CONNECTED);
        EXPECT_TRUE(bus.List().empty());
    }
    taken.reset();
    EXPECT_EQ(bus.InterfacePath(bus.Plug(options)), path);
    EXPECT_TRUE(Open(path)) << ::GetLastError();
}

TEST_F(VirtualCamera, UnplugAllFromTwoSidesUnplugsAllOnce) {
    for (int round = 0; round < 10; ++round) {
        for (int i = 0; i < 5; ++i)
            bus.Plug();
        auto other = std::async(std::launch::async, [] { vcam::Bus().UnplugAll(); });
        EXPECT_NO_THROW(bus.UnplugAll());
        EXPECT_NO_THROW(other.get());
        EXPECT_TRUE(bus.List().empty());
    }
}

TEST_F(VirtualCamera, AnUnknownCameraIsReportedAsNotConnected) {
    EXPECT_EQ(CodeThrownBy([&] { bus.Unplug(999999); }), ERROR_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(CodeThrownBy([&] { bus.Counters(999999); }), ERROR_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(CodeThrownBy([&] { bus.SetBehaviour(999999, {}); }), ERROR_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(CodeThrownBy([&] { bus.ReadMemory(999999, 0, 1); }), ERROR_DEVICE_NOT_CONNECTED);
    EXPECT_EQ(CodeThrownBy([&] { bus.WaitForPending(999999, 1, kPatience); }),
              ERROR_DEVICE_NOT_CONNECTED);
}

TEST_F(VirtualCamera, AHundredCamerasComeAndGoQuickly) {
    constexpr int kCycles = 100;
    steady_clock::duration plugging = {};
    steady_clock::duration unplugging = {};
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        vcam::PlugOptions options;
        options.instanceId = L"Cycle";
        const auto start = steady_clock::now();
        id = bus.Plug(options);
        const auto plugged = steady_clock::now();
        UniqueHandle opened = Open(bus.InterfacePath(id));
        ASSERT_TRUE(opened) << "cycle " << cycle << ", error " << ::GetLastError();
        Transfer inquiry = ReadIn(Cdb({0x12, 0, 0, 0, 36}), 36);
        ASSERT_EQ(inquiry.Run(opened.get()), 0u) << "cycle " << cycle;
        opened.reset();
        const auto before = steady_clock::now();
        bus.Unplug(id);
        plugging += plugged - start;
        unplugging += steady_clock::now() - before;
    }
    const auto milliseconds = [](steady_clock::duration total) {
        return std::chrono::duration<double, std::milli>(total).count() / kCycles;
    };
    RecordProperty("plug_ms", std::to_string(milliseconds(plugging)));
    RecordProperty("unplug_ms", std::to_string(milliseconds(unplugging)));
    EXPECT_LT(milliseconds(plugging), 200.0);
    EXPECT_LT(milliseconds(unplugging), 200.0);
    EXPECT_TRUE(bus.List().empty());
}

TEST_F(VirtualCamera, TenCamerasAtOnceKeepApart) {
    struct Plugged {
        vcam::CameraId id;
        UniqueHandle device;
    };
    std::vector<Plugged> cameras;
    for (std::uint8_t i = 0; i < 10; ++i) {
        const vcam::CameraId camera = bus.Plug();
        bus.WriteMemory(camera, 0, std::vector(kBlock, std::byte{i}));
        cameras.push_back({camera, Open(bus.InterfacePath(camera))});
        ASSERT_TRUE(cameras.back().device) << ::GetLastError();
    }
    for (std::uint8_t i = 0; i < 10; ++i) {
        Transfer read = ReadIn(Read6(0, 1));
        ASSERT_EQ(read.Run(cameras[i].device.get()), 0u);
        ASSERT_EQ(read.DataReturned(), kBlock);
        EXPECT_EQ(read.Data()[511], i);
        EXPECT_EQ(bus.Counters(cameras[i].id).requests, 1u);
    }
    bus.Unplug(cameras[4].id);
    Transfer gone = ReadIn(Read6(0, 1));
    EXPECT_EQ(gone.Run(cameras[4].device.get()), DWORD{ERROR_DEVICE_NOT_CONNECTED});
    Transfer stays = ReadIn(Read6(0, 1));
    EXPECT_EQ(stays.Run(cameras[5].device.get()), 0u);
}

}  // namespace
}  // namespace camera_test
