// The virtual camera itself: what the other system tests rely on. The driver must be installed.

#include "virtual_camera.h"

#include <gtest/gtest.h>
#include <setupapi.h>
#include <winioctl.h>
#include <winternl.h>
// After winioctl.h, whose CTL_CODE it uses.
#include <ntddscsi.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "vcamctl_program.h"
#include "windows/unique_handle.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr auto kPatience = 10s;

constexpr std::size_t kBlock = vcam::kBlockSize;

constexpr vcam::NtStatus kStatusIoDeviceError = static_cast<vcam::NtStatus>(0xC0000185);
constexpr vcam::NtStatus kStatusBufferOverflow = static_cast<vcam::NtStatus>(0x80000005);
constexpr vcam::NtStatus kStatusPending = 0x103;

constexpr std::size_t kDataOffset = 65;  // where the service puts the data: odd, on purpose
constexpr std::uint8_t kGood = 0;
constexpr std::uint8_t kCheckCondition = 2;

UniqueHandle Open(const std::wstring& path, DWORD access = GENERIC_READ | GENERIC_WRITE) {
    return OwnFile(::CreateFileW(path.c_str(), access, 0, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_OVERLAPPED, nullptr));
}

std::array<std::uint8_t, 16> Cdb(std::initializer_list<std::uint8_t> bytes) {
    std::array<std::uint8_t, 16> cdb = {};
    std::copy(bytes.begin(), bytes.end(), cdb.begin());
    return cdb;
}

std::array<std::uint8_t, 16> Read6(std::uint32_t block, std::uint8_t count) {
    return Cdb({0x08, static_cast<std::uint8_t>(block >> 16), static_cast<std::uint8_t>(block >> 8),
                static_cast<std::uint8_t>(block), count, 0});
}

std::array<std::uint8_t, 16> Write6(std::uint32_t block, std::uint8_t count) {
    std::array<std::uint8_t, 16> cdb = Read6(block, count);
    cdb[0] = 0x0a;
    return cdb;
}

/// One pass-through request, laid out as the service does it. Must not be destroyed while pending.
class Transfer {
public:
    Transfer(UCHAR direction, const std::array<std::uint8_t, 16>& cdb, std::size_t length)
        : block(kDataOffset + length),
          event(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        SCSI_PASS_THROUGH& header = Header();
        header.Length = sizeof(SCSI_PASS_THROUGH);
        header.CdbLength = 8;
        header.DataIn = direction;
        header.DataTransferLength = static_cast<ULONG>(length);
        header.TimeOutValue = 100;
        header.DataBufferOffset = kDataOffset;
        std::copy(cdb.begin(), cdb.end(), header.Cdb);
        header.ScsiStatus = 0xee;  // the driver writes it
        overlapped.hEvent = event.get();
    }

    SCSI_PASS_THROUGH& Header() { return *reinterpret_cast<SCSI_PASS_THROUGH*>(block.data()); }
    std::uint8_t* Data() { return block.data() + kDataOffset; }

    /// Returns the error of the call: 0, ERROR_IO_PENDING or what it failed with.
    DWORD Issue(HANDLE onDevice) {
        return Issue(onDevice, static_cast<DWORD>(block.size()), static_cast<DWORD>(block.size()));
    }
    DWORD Issue(HANDLE onDevice, DWORD inputLength, DWORD outputLength) {
        device = onDevice;
        if (::DeviceIoControl(device, IOCTL_SCSI_PASS_THROUGH, block.data(), inputLength,
                              block.data(), outputLength, nullptr, &overlapped))
            return ERROR_SUCCESS;
        return ::GetLastError();
    }

    bool IsPending() const { return ::WaitForSingleObject(event.get(), 0) == WAIT_TIMEOUT; }

    /// Waits for the end; returns its error. `returned` has the byte count then.
    DWORD Await() {
        const DWORD waited = ::WaitForSingleObject(
            event.get(), static_cast<DWORD>(std::chrono::milliseconds(kPatience).count()));
        if (waited != WAIT_OBJECT_0)
            return ERROR_TIMEOUT;
        return ::GetOverlappedResult(device, &overlapped, &returned, FALSE) ? ERROR_SUCCESS
                                                                            : ::GetLastError();
    }

    /// Issues and waits.
    DWORD Run(HANDLE onDevice) {
        const DWORD error = Issue(onDevice);
        return error == ERROR_SUCCESS || error == ERROR_IO_PENDING ? Await() : error;
    }

    DWORD DataReturned() const { return returned - static_cast<DWORD>(kDataOffset); }

    OVERLAPPED overlapped = {};
    DWORD returned = 0;
    std::vector<std::uint8_t> block;

private:
    UniqueHandle event;
    HANDLE device = nullptr;
};

Transfer ReadIn(const std::array<std::uint8_t, 16>& cdb, std::size_t length = 65536) {
    return {SCSI_IOCTL_DATA_IN, cdb, length};
}

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

/// Queries the storage device descriptor into `length` bytes; the size says what came.
std::vector<std::uint8_t> QueryDescriptor(HANDLE device, std::size_t length) {
    STORAGE_PROPERTY_QUERY query = {};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    std::vector<std::uint8_t> bytes(length);
    DWORD returned = 0;
    const UniqueHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED overlapped = {};
    overlapped.hEvent = event.get();
    EXPECT_TRUE(::DeviceIoControl(device, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query),
                                  bytes.data(), static_cast<DWORD>(length), nullptr, &overlapped) ||
                ::GetLastError() == ERROR_IO_PENDING)
        << ::GetLastError();
    EXPECT_TRUE(::GetOverlappedResult(device, &overlapped, &returned, TRUE)) << ::GetLastError();
    bytes.resize(returned);
    return bytes;
}

/// A function of ntdll that has no import library, or null.
template <typename Function>
Function NtFunction(const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), name)));
}

bool RunsOnWine() {
    return NtFunction<void*>("wine_get_version") != nullptr;
}

/// The error code of the std::system_error that `action` throws; 0 if it throws none.
int CodeThrownBy(const std::function<void()>& action) {
    try {
        action();
        return 0;
    } catch (const std::system_error& error) {
        return error.code().value();
    }
}

class VirtualCamera : public ::testing::Test {
protected:
    void SetUp() override { bus.UnplugAll(); }
    void TearDown() override { bus.UnplugAll(); }

    /// Plugs a camera and opens it.
    void PlugAndOpen(const vcam::PlugOptions& options = {}) {
        id = bus.Plug(options);
        device = Open(bus.InterfacePath(id));
        ASSERT_TRUE(device) << ::GetLastError();
    }

    void Set(const vcam::Behaviour& behaviour) { bus.SetBehaviour(id, behaviour); }

    void SetHold() {
        vcam::Behaviour behaviour;
        behaviour.hold = true;
        Set(behaviour);
    }

    vcam::Bus bus;
    vcam::CameraId id = 0;
    UniqueHandle device;
};

// --- plugging ---

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

/// Takes the name of a camera's interface, so that no camera can offer it.
UniqueHandle TakeInterfaceName(const std::wstring& path) {
    // The kernel's spelling of the directory that "\\\\?\\" stands for.
    std::wstring name = L"\\??\\Global\\" + path.substr(4);
    std::wstring target = L"\\Device\\Null";
    const auto text = [](std::wstring& from) {
        const auto bytes = static_cast<USHORT>(from.size() * sizeof(wchar_t));
        return UNICODE_STRING{bytes, bytes, from.data()};
    };
    UNICODE_STRING nameText = text(name);
    UNICODE_STRING targetText = text(target);
    OBJECT_ATTRIBUTES attributes = {};
    InitializeObjectAttributes(&attributes, &nameText, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    constexpr ACCESS_MASK kAllAccess = STANDARD_RIGHTS_REQUIRED | 1;  // SYMBOLIC_LINK_ALL_ACCESS
    using Create = NTSTATUS(NTAPI*)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, UNICODE_STRING*);
    const auto create = NtFunction<Create>("NtCreateSymbolicLinkObject");
    HANDLE link = nullptr;
    EXPECT_EQ(create(&link, kAllAccess, &attributes, &targetText), 0);
    return UniqueHandle(link);
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

// --- the descriptor ---

TEST_F(VirtualCamera, DescriptorHasTheStringsByteForByte) {
    vcam::PlugOptions options;
    options.vendor = "Orvik   ";
    options.product = std::nullopt;
    options.revision = "\x01\xff odd";
    PlugAndOpen(options);

    const std::vector<std::uint8_t> head = QueryDescriptor(device.get(), 8);
    ASSERT_EQ(head.size(), 8u);
    STORAGE_DESCRIPTOR_HEADER header;
    std::memcpy(&header, head.data(), sizeof(header));

    const std::vector<std::uint8_t> bytes = QueryDescriptor(device.get(), header.Size);
    ASSERT_EQ(bytes.size(), header.Size);
    STORAGE_DEVICE_DESCRIPTOR descriptor;
    ASSERT_GE(bytes.size(), sizeof(descriptor));
    std::memcpy(&descriptor, bytes.data(), sizeof(descriptor));
    const auto text = [&](DWORD offset) {
        return std::string(reinterpret_cast<const char*>(bytes.data()) + offset);
    };
    EXPECT_EQ(text(descriptor.VendorIdOffset), *options.vendor);
    EXPECT_EQ(descriptor.ProductIdOffset, 0u);
    EXPECT_EQ(text(descriptor.ProductRevisionOffset), *options.revision);
    EXPECT_EQ(QueryDescriptor(device.get(), header.Size + 100).size(), header.Size);
}

TEST_F(VirtualCamera, DescriptorAnswersCanBeTooShort) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.descriptorHeaderBytes = 7;
    Set(behaviour);
    EXPECT_EQ(QueryDescriptor(device.get(), 8).size(), 7u);
    EXPECT_GT(QueryDescriptor(device.get(), 500).size(), 40u);

    behaviour = {};
    behaviour.descriptorBytes = 20;
    Set(behaviour);
    EXPECT_EQ(QueryDescriptor(device.get(), 8).size(), 8u);
    EXPECT_EQ(QueryDescriptor(device.get(), 500).size(), 20u);
}

TEST_F(VirtualCamera, DescriptorCanBeAnyBytes) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.descriptor.emplace();
    for (int i = 0; i < 1000; ++i)
        behaviour.descriptor->push_back(static_cast<std::byte>(i * 7));
    Set(behaviour);
    const std::vector<std::uint8_t> bytes = QueryDescriptor(device.get(), 2000);
    ASSERT_EQ(bytes.size(), 1000u);
    EXPECT_EQ(std::memcmp(bytes.data(), behaviour.descriptor->data(), 1000), 0);
    behaviour.descriptor->resize(4097);
    EXPECT_EQ(CodeThrownBy([&] { Set(behaviour); }), ERROR_INVALID_PARAMETER);
}

// --- SCSI ---

TEST_F(VirtualCamera, InquiryShowsTheStringsCutAndPadded) {
    vcam::PlugOptions options;
    options.vendor = "Orvik";
    options.product = "A product name that is too long";
    options.revision = std::nullopt;
    PlugAndOpen(options);
    Transfer inquiry = ReadIn(Cdb({0x12, 0, 0, 0, 96}), 96);
    ASSERT_EQ(inquiry.Run(device.get()), 0u);
    EXPECT_EQ(inquiry.Header().ScsiStatus, kGood);
    ASSERT_EQ(inquiry.DataReturned(), 36u);
    EXPECT_EQ(inquiry.Header().DataTransferLength, 36u);
    EXPECT_EQ(inquiry.Data()[0], 0);  // direct access
    EXPECT_EQ(std::string(inquiry.Data() + 8, inquiry.Data() + 36), "Orvik   A product name t    ");

    Transfer part = ReadIn(Cdb({0x12, 0, 0, 0, 5}), 96);
    ASSERT_EQ(part.Run(device.get()), 0u);
    EXPECT_EQ(part.DataReturned(), 5u);
}

TEST_F(VirtualCamera, ReadCapacityAndTestUnitReady) {
    vcam::PlugOptions options;
    options.blockCount = 0x12345;
    PlugAndOpen(options);
    Transfer capacity = ReadIn(Cdb({0x25}), 8);
    ASSERT_EQ(capacity.Run(device.get()), 0u);
    ASSERT_EQ(capacity.DataReturned(), 8u);
    const std::array<std::uint8_t, 8> expected = {0, 0x01, 0x23, 0x44, 0, 0, 2, 0};
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), capacity.Data()));

    Transfer ready(SCSI_IOCTL_DATA_UNSPECIFIED, Cdb({0}), 0);
    ASSERT_EQ(ready.Run(device.get()), 0u);
    EXPECT_EQ(ready.Header().ScsiStatus, kGood);
}

TEST_F(VirtualCamera, WrittenBlocksAreInMemoryAndAreReadBack) {
    PlugAndOpen();
    constexpr std::size_t kLength = 3 * kBlock;
    Transfer write(SCSI_IOCTL_DATA_OUT, Write6(1000, 3), kLength);
    for (std::size_t i = 0; i < kLength; ++i)
        write.Data()[i] = static_cast<std::uint8_t>(i * 31 + 7);
    ASSERT_EQ(write.Run(device.get()), 0u);
    EXPECT_EQ(write.Header().ScsiStatus, kGood);
    EXPECT_EQ(write.Header().DataTransferLength, kLength);

    const std::vector<std::byte> memory = bus.ReadMemory(id, 999 * kBlock, 5 * kBlock);
    EXPECT_EQ(std::memcmp(memory.data() + kBlock, write.Data(), kLength), 0);
    EXPECT_EQ(memory[kBlock - 1], std::byte{0});
    EXPECT_EQ(memory[4 * kBlock], std::byte{0});

    Transfer read = ReadIn(Read6(1000, 3));
    ASSERT_EQ(read.Run(device.get()), 0u);
    ASSERT_EQ(read.DataReturned(), kLength);
    EXPECT_EQ(std::memcmp(read.Data(), write.Data(), kLength), 0);
}

TEST_F(VirtualCamera, ReadOfZeroBlocksMeans256CutToTheBuffer) {
    PlugAndOpen();
    std::vector<std::byte> bytes(256 * kBlock);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::byte>(i / 251);
    bus.WriteMemory(id, 0, bytes);
    Transfer cut = ReadIn(Read6(0, 0), 65536);
    ASSERT_EQ(cut.Run(device.get()), 0u);
    ASSERT_EQ(cut.DataReturned(), 65536u);
    EXPECT_EQ(std::memcmp(cut.Data(), bytes.data(), 65536), 0);
    Transfer whole = ReadIn(Read6(0, 0), 200000);
    ASSERT_EQ(whole.Run(device.get()), 0u);
    ASSERT_EQ(whole.DataReturned(), bytes.size());
    EXPECT_EQ(std::memcmp(whole.Data(), bytes.data(), bytes.size()), 0);
}

TEST_F(VirtualCamera, CheckConditionLeavesSenseDataForOneRequestSense) {
    vcam::PlugOptions options;
    options.blockCount = 10;
    PlugAndOpen(options);
    const auto sense = [&] {
        Transfer request = ReadIn(Cdb({0x03, 0, 0, 0, 18}), 18);
        EXPECT_EQ(request.Run(device.get()), 0u);
        EXPECT_EQ(request.DataReturned(), 18u);
        return std::array{request.Data()[2], request.Data()[12]};
    };
    EXPECT_EQ(sense(), (std::array<std::uint8_t, 2>{0, 0}));

    Transfer beyond = ReadIn(Read6(9, 2));
    ASSERT_EQ(beyond.Run(device.get()), 0u);
    EXPECT_EQ(beyond.Header().ScsiStatus, kCheckCondition);
    EXPECT_EQ(beyond.DataReturned(), 0u);
    EXPECT_EQ(sense(), (std::array<std::uint8_t, 2>{0x05, 0x21}));
    EXPECT_EQ(sense(), (std::array<std::uint8_t, 2>{0, 0}));

    for (const std::uint8_t code : std::array<std::uint8_t, 3>{0x28, 0x5a, 0xff}) {
        Transfer unknown = ReadIn(Cdb({code}));
        ASSERT_EQ(unknown.Run(device.get()), 0u);
        EXPECT_EQ(unknown.Header().ScsiStatus, kCheckCondition) << int{code};
        EXPECT_EQ(sense(), (std::array<std::uint8_t, 2>{0x05, 0x20}));
    }
}

TEST_F(VirtualCamera, HostileBlocksAreRefusedAndHarmNothing) {
    PlugAndOpen();
    const auto errorFor = [&](UCHAR direction, const std::function<void(SCSI_PASS_THROUGH&)>& f) {
        Transfer transfer(direction, Read6(0, 1), 512);
        f(transfer.Header());
        const DWORD error = transfer.Issue(device.get());
        return error == ERROR_IO_PENDING ? transfer.Await() : error;
    };
    constexpr DWORD kRefused = ERROR_INVALID_PARAMETER;
    for (const UCHAR direction : std::array<UCHAR, 2>{SCSI_IOCTL_DATA_IN, SCSI_IOCTL_DATA_OUT}) {
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataTransferLength = 513; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataTransferLength = ~0u; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataBufferOffset = 55; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataBufferOffset = 66; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataBufferOffset = 578; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataBufferOffset = ~ULONG_PTR{0}; }),
                  kRefused);
        EXPECT_EQ(
            errorFor(direction, [](auto& h) { h.DataBufferOffset = (ULONG_PTR{1} << 32) + 65; }),
            kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.Length = 44; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.CdbLength = 0; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.CdbLength = 17; }), kRefused);
        EXPECT_EQ(errorFor(direction, [](auto& h) { h.DataIn = 3; }), kRefused);
    }
    Transfer transfer = ReadIn(Read6(0, 1), 512);
    for (const DWORD length : {0u, 1u, 55u, 64u, 576u}) {
        EXPECT_EQ(transfer.Issue(device.get(), 577, length), kRefused) << length;
        EXPECT_EQ(transfer.Issue(device.get(), std::min(length, 55ul), 577), kRefused) << length;
    }
    EXPECT_EQ(transfer.Run(device.get()), 0u);
    EXPECT_EQ(transfer.DataReturned(), 512u);
    EXPECT_EQ(bus.Counters(id).pending, 0u);
}

// --- behaviour ---

TEST_F(VirtualCamera, HeldRequestsEndExactlyWhenReleasedInAnyOrder) {
    PlugAndOpen();
    for (std::uint8_t i = 0; i < 4; ++i)
        bus.WriteMemory(id, i * kBlock, std::vector(512, std::byte(0x10 + i)));
    SetHold();
    std::vector<std::unique_ptr<Transfer>> reads;
    for (std::uint8_t i = 0; i < 4; ++i) {
        reads.push_back(std::make_unique<Transfer>(UCHAR{SCSI_IOCTL_DATA_IN}, Read6(i, 1), 512));
        ASSERT_EQ(reads.back()->Issue(device.get()), DWORD{ERROR_IO_PENDING});
    }
    bus.WaitForPending(id, 4, kPatience);
    for (const std::size_t i : {2u, 0u, 3u, 1u}) {
        EXPECT_TRUE(reads[i]->IsPending());
        bus.Release(id, i + 1u);  // sequence numbers count from 1
        ASSERT_EQ(reads[i]->Await(), 0u);
        EXPECT_EQ(reads[i]->DataReturned(), 512u);
        EXPECT_EQ(reads[i]->Data()[0], 0x10 + i);
    }
    EXPECT_EQ(CodeThrownBy([&] { bus.Release(id, 2); }), ERROR_NOT_FOUND);
    EXPECT_EQ(bus.Counters(id).pending, 0u);
}

TEST_F(VirtualCamera, ReleaseAllEndsWhatIsHeldAndLaterRequestsAreHeldAgain) {
    PlugAndOpen();
    SetHold();
    Transfer first = ReadIn(Read6(0, 1));
    Transfer second = ReadIn(Read6(1, 1));
    ASSERT_EQ(first.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    ASSERT_EQ(second.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 2, kPatience);
    bus.ReleaseAll(id);
    EXPECT_EQ(first.Await(), 0u);
    EXPECT_EQ(second.Await(), 0u);

    Transfer third = ReadIn(Read6(2, 1));
    ASSERT_EQ(third.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 1, kPatience);
    Set({});  // those that are held already stay so
    Transfer fourth = ReadIn(Read6(3, 1));
    EXPECT_EQ(fourth.Run(device.get()), 0u);
    EXPECT_TRUE(third.IsPending());
    bus.ReleaseAll(id);
    EXPECT_EQ(third.Await(), 0u);
}

TEST_F(VirtualCamera, DelayedRequestIsPendingUntilItsTime) {
    PlugAndOpen();
    vcam::Behaviour slow;
    slow.delay = 400ms;
    Set(slow);
    const auto start = steady_clock::now();
    Transfer late = ReadIn(Read6(0, 1));
    ASSERT_EQ(late.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    EXPECT_LT(steady_clock::now() - start, 300ms);  // the call itself does not wait

    vcam::Behaviour quicker;
    quicker.delay = 50ms;
    Set(quicker);
    Transfer early = ReadIn(Read6(0, 1));
    ASSERT_EQ(early.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    EXPECT_EQ(early.Await(), 0u);
    EXPECT_TRUE(late.IsPending());  // a shorter delay overtakes
    EXPECT_EQ(late.Await(), 0u);
    EXPECT_GE(steady_clock::now() - start, 395ms);
    EXPECT_EQ(late.DataReturned(), 512u);
}

TEST_F(VirtualCamera, CancelledRequestEndsAndIsNotCarriedOut) {
    PlugAndOpen();
    SetHold();
    Transfer write(SCSI_IOCTL_DATA_OUT, Write6(0, 1), 512);
    Transfer other(SCSI_IOCTL_DATA_OUT, Write6(1, 1), 512);
    std::fill_n(write.Data(), 512, std::uint8_t{0xaa});
    std::fill_n(other.Data(), 512, std::uint8_t{0xbb});
    ASSERT_EQ(write.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    ASSERT_EQ(other.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 2, kPatience);
    ASSERT_TRUE(::CancelIoEx(device.get(), &write.overlapped));
    EXPECT_EQ(write.Await(), DWORD{ERROR_OPERATION_ABORTED});
    EXPECT_TRUE(other.IsPending());
    EXPECT_EQ(bus.Counters(id).pending, 1u);
    EXPECT_EQ(CodeThrownBy([&] { bus.Release(id, 1); }), ERROR_NOT_FOUND);
    bus.Release(id, 2);
    EXPECT_EQ(other.Await(), 0u);
    EXPECT_EQ(bus.ReadMemory(id, 0, 1)[0], std::byte{0});
    EXPECT_EQ(bus.ReadMemory(id, 512, 1)[0], std::byte{0xbb});
}

TEST_F(VirtualCamera, RequestThatIgnoresCancelEndsNormally) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.hold = true;
    behaviour.ignoreCancel = true;
    Set(behaviour);
    Transfer read = ReadIn(Read6(0, 1));
    ASSERT_EQ(read.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 1, kPatience);
    ::CancelIoEx(device.get(), &read.overlapped);
    EXPECT_EQ(bus.Counters(id).pending, 1u);
    EXPECT_TRUE(read.IsPending());
    bus.ReleaseAll(id);
    EXPECT_EQ(read.Await(), 0u);
    EXPECT_EQ(read.DataReturned(), 512u);
}

TEST_F(VirtualCamera, ImmediateStatusFailsTheCallItself) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.immediateStatus = kStatusIoDeviceError;
    Set(behaviour);
    Transfer failing = ReadIn(Read6(0, 1));
    EXPECT_EQ(failing.Issue(device.get()), DWORD{ERROR_IO_DEVICE});
    behaviour.immediateStatus = kStatusBufferOverflow;
    Set(behaviour);
    Transfer warned = ReadIn(Read6(0, 1));
    EXPECT_EQ(warned.Issue(device.get()), DWORD{ERROR_MORE_DATA});
    EXPECT_EQ(bus.Counters(id).requests, 2u);
    EXPECT_EQ(bus.LastRequests(id).size(), 2u);

    behaviour.immediateStatus = kStatusPending;  // no request can end with "pending"
    EXPECT_EQ(CodeThrownBy([&] { Set(behaviour); }), ERROR_INVALID_PARAMETER);
}

TEST_F(VirtualCamera, CompletionStatusComesAfterTheRequestWasPending) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.completionStatus = kStatusIoDeviceError;
    Set(behaviour);
    Transfer plain = ReadIn(Read6(0, 1));
    EXPECT_EQ(plain.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    EXPECT_EQ(plain.Await(), DWORD{ERROR_IO_DEVICE});

    behaviour.hold = true;
    Set(behaviour);
    Transfer held = ReadIn(Read6(0, 1));
    EXPECT_EQ(held.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 1, kPatience);
    bus.ReleaseAll(id);
    EXPECT_EQ(held.Await(), DWORD{ERROR_IO_DEVICE});
}

TEST_F(VirtualCamera, GivenScsiStatusAnswersEveryCommandAndCarriesNothingOut) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.scsiStatus = 8;  // BUSY
    Set(behaviour);
    Transfer write(SCSI_IOCTL_DATA_OUT, Write6(0, 1), 512);
    std::fill_n(write.Data(), 512, std::uint8_t{0xaa});
    ASSERT_EQ(write.Run(device.get()), 0u);
    EXPECT_EQ(write.Header().ScsiStatus, 8);
    EXPECT_EQ(bus.ReadMemory(id, 0, 1)[0], std::byte{0});
    Transfer read = ReadIn(Read6(0, 1));
    ASSERT_EQ(read.Run(device.get()), 0u);
    EXPECT_EQ(read.Header().ScsiStatus, 8);
    EXPECT_EQ(read.DataReturned(), 0u);
}

TEST_F(VirtualCamera, AnswersCanBeShort) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.maximumDataBytes = 100;
    Set(behaviour);
    Transfer read = ReadIn(Read6(0, 1));
    ASSERT_EQ(read.Run(device.get()), 0u);
    EXPECT_EQ(read.Header().ScsiStatus, kGood);
    EXPECT_EQ(read.DataReturned(), 100u);

    behaviour = {};
    behaviour.returnedBytes = 12;  // not even its own header
    Set(behaviour);
    Transfer tiny = ReadIn(Read6(0, 1));
    ASSERT_EQ(tiny.Run(device.get()), 0u);
    EXPECT_EQ(tiny.returned, 12u);
    behaviour.returnedBytes = 1'000'000;
    Set(behaviour);
    Transfer huge = ReadIn(Read6(0, 1), 512);
    ASSERT_EQ(huge.Run(device.get()), 0u);
    EXPECT_EQ(huge.returned, 577u);
}

// --- unplugging and closing with requests pending ---

TEST_F(VirtualCamera, UnplugEndsEverythingThatIsPending) {
    PlugAndOpen();
    SetHold();
    std::vector<std::unique_ptr<Transfer>> reads;
    for (int i = 0; i < 8; ++i) {
        if (i == 4) {
            vcam::Behaviour slow;
            slow.delay = 1h;
            slow.ignoreCancel = true;
            Set(slow);
        }
        reads.push_back(std::make_unique<Transfer>(UCHAR{SCSI_IOCTL_DATA_IN}, Read6(0, 1), 512));
        ASSERT_EQ(reads.back()->Issue(device.get()), DWORD{ERROR_IO_PENDING});
    }
    bus.WaitForPending(id, 8, kPatience);
    bus.Unplug(id);
    for (const auto& read : reads)
        EXPECT_EQ(read->Await(), DWORD{ERROR_DEVICE_NOT_CONNECTED});
    Transfer late = ReadIn(Read6(0, 1));
    EXPECT_EQ(late.Issue(device.get()), DWORD{ERROR_DEVICE_NOT_CONNECTED});
}

TEST_F(VirtualCamera, ClosingTheHandleDoesNotEndPendingRequests) {
    PlugAndOpen();
    const UniqueHandle port(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1));
    ASSERT_EQ(::CreateIoCompletionPort(device.get(), port.get(), 7, 0), port.get());
    SetHold();
    Transfer read = ReadIn(Read6(0, 1));
    read.overlapped.hEvent = nullptr;
    ASSERT_EQ(read.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    bus.WaitForPending(id, 1, kPatience);
    device.reset();

    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    EXPECT_FALSE(::GetQueuedCompletionStatus(port.get(), &bytes, &key, &overlapped, 100));
    ASSERT_EQ(overlapped, nullptr) << "ended by the close";
    EXPECT_EQ(bus.Counters(id).pending, 1u);
    bus.ReleaseAll(id);
    EXPECT_TRUE(::GetQueuedCompletionStatus(port.get(), &bytes, &key, &overlapped, 10'000));
    EXPECT_EQ(overlapped, &read.overlapped);
    EXPECT_EQ(bytes, kDataOffset + 512);
}

TEST_F(VirtualCamera, HandleMayOutliveTheCameraAndTheNextOneWithItsPath) {
    vcam::PlugOptions options;
    options.instanceId = L"Again";
    PlugAndOpen(options);
    bus.Unplug(id);
    const vcam::CameraId next = bus.Plug(options);
    const UniqueHandle fresh = Open(bus.InterfacePath(next));
    ASSERT_TRUE(fresh) << ::GetLastError();
    Transfer old = ReadIn(Read6(0, 1));
    EXPECT_EQ(old.Run(device.get()), DWORD{ERROR_DEVICE_NOT_CONNECTED});
    Transfer read = ReadIn(Read6(0, 1));
    EXPECT_EQ(read.Run(fresh.get()), 0u);
    bus.Unplug(next);
    device.reset();
}

// --- what the driver tells ---

TEST_F(VirtualCamera, RequestsAreKeptExactlyAsTheyCame) {
    PlugAndOpen();
    Transfer first(SCSI_IOCTL_DATA_OUT, Write6(3, 1), 512);
    for (std::size_t i = sizeof(SCSI_PASS_THROUGH); i < first.block.size(); ++i)
        first.block[i] = static_cast<std::uint8_t>(i * 13);
    const std::vector<std::uint8_t> sent = first.block;
    ASSERT_EQ(first.Run(device.get()), 0u);
    Transfer second = ReadIn(Read6(0, 1), 65536);
    ASSERT_EQ(second.Run(device.get()), 0u);

    const std::vector<vcam::Request> requests = bus.LastRequests(id);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].sequenceNumber, 1u);
    EXPECT_EQ(requests[0].inputLength, 577u);
    EXPECT_EQ(requests[0].outputLength, 577u);
    ASSERT_EQ(requests[0].block.size(), 577u);
    EXPECT_EQ(std::memcmp(requests[0].block.data(), sent.data(), 577), 0);
    EXPECT_EQ(requests[1].sequenceNumber, 2u);
    EXPECT_EQ(requests[1].block.size(), 65601u);
    EXPECT_EQ(requests[1].block[2], std::byte{0xee});  // before the driver wrote its answer
}

TEST_F(VirtualCamera, TheLastSixtyFourRequestsAreKept) {
    PlugAndOpen();
    for (std::uint8_t i = 0; i < 100; ++i) {
        Transfer read = ReadIn(Read6(i, 1), 512);
        ASSERT_EQ(read.Run(device.get()), 0u);
    }
    const std::vector<vcam::Request> requests = bus.LastRequests(id, 1000);
    ASSERT_EQ(requests.size(), vcam::kRequestsKept);
    for (std::size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].sequenceNumber, 37 + i);
        EXPECT_EQ(requests[i].block[36 + 3], static_cast<std::byte>(36 + i));
    }
    const std::vector<vcam::Request> two = bus.LastRequests(id, 2);
    ASSERT_EQ(two.size(), 2u);
    EXPECT_EQ(two[1].sequenceNumber, 100u);
    EXPECT_TRUE(bus.LastRequests(id, 0).empty());
}

TEST_F(VirtualCamera, CountersFollowHandlesAndRequests) {
    const vcam::CameraId camera = bus.Plug();
    const std::wstring path = bus.InterfacePath(camera);
    EXPECT_EQ(bus.Counters(camera).opens, 0u);
    UniqueHandle first = Open(path);
    UniqueHandle second = Open(path, 0);
    bus.WaitFor(camera, vcam::Counter::kOpens, 2, kPatience);
    EXPECT_EQ(bus.Counters(camera).closes, 0u);
    Transfer read = ReadIn(Read6(0, 1));
    ASSERT_EQ(read.Run(first.get()), 0u);
    bus.WaitFor(camera, vcam::Counter::kRequests, 1, kPatience);
    first.reset();
    bus.WaitFor(camera, vcam::Counter::kCloses, 1, kPatience);
    second.reset();
    bus.WaitFor(camera, vcam::Counter::kCloses, 2, kPatience);
    EXPECT_EQ(bus.Counters(camera).opens, 2u);
    EXPECT_EQ(bus.Counters(camera).requests, 1u);
}

TEST_F(VirtualCamera, WaitingEndsWithTheEventTheTimeoutOrTheCamera) {
    PlugAndOpen();
    EXPECT_EQ(CodeThrownBy([&] { bus.WaitForPending(id, 1, 50ms); }), ERROR_TIMEOUT);
    SetHold();
    int code = -1;
    std::thread waiting(
        [&] { code = CodeThrownBy([&] { bus.WaitForPending(id, 2, kPatience); }); });
    Transfer first = ReadIn(Read6(0, 1));
    Transfer second = ReadIn(Read6(0, 1));
    EXPECT_EQ(first.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    EXPECT_EQ(second.Issue(device.get()), DWORD{ERROR_IO_PENDING});
    waiting.join();
    EXPECT_EQ(code, 0);

    std::atomic<bool> started = false;
    std::thread orphan([&] {
        started = true;
        code = CodeThrownBy([&] { bus.WaitForPending(id, 3, kPatience); });
    });
    while (!started)
        std::this_thread::yield();
    bus.Unplug(id);
    orphan.join();
    EXPECT_EQ(code, ERROR_DEVICE_NOT_CONNECTED);
    first.Await();
    second.Await();
}

TEST_F(VirtualCamera, LongTimeoutsAreNotCutShort) {
    PlugAndOpen();
    SetHold();
    constexpr auto kFourGiga = std::chrono::milliseconds(std::int64_t{1} << 32);
    for (const auto timeout : {kFourGiga, kFourGiga - 1ms, std::chrono::milliseconds::max()}) {
        auto waiting = std::async(std::launch::async, [&] {
            return CodeThrownBy([&] { bus.WaitForPending(id, 1, timeout); });
        });
        EXPECT_EQ(waiting.wait_for(100ms), std::future_status::timeout) << timeout.count();
        Transfer read = ReadIn(Read6(0, 1));
        ASSERT_EQ(read.Issue(device.get()), DWORD{ERROR_IO_PENDING});
        EXPECT_EQ(waiting.get(), 0);
        bus.ReleaseAll(id);
        EXPECT_EQ(read.Await(), 0u);
    }
    EXPECT_EQ(CodeThrownBy([&] { bus.WaitForPending(id, 1, std::chrono::milliseconds::min()); }),
              ERROR_TIMEOUT);
}

TEST_F(VirtualCamera, MemoryIsReadAndWrittenInPlace) {
    vcam::PlugOptions options;
    options.blockCount = 3000;  // more than one control request moves
    const vcam::CameraId camera = bus.Plug(options);
    std::vector<std::byte> bytes(3000 * kBlock);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::byte>(i * 2654435761u >> 24);
    bus.WriteMemory(camera, 0, bytes);
    EXPECT_EQ(bus.ReadMemory(camera, 0, bytes.size()), bytes);
    EXPECT_EQ(bus.ReadMemory(camera, 777, 3)[1], bytes[778]);
    EXPECT_TRUE(bus.ReadMemory(camera, bytes.size(), 0).empty());
    EXPECT_EQ(CodeThrownBy([&] { bus.ReadMemory(camera, bytes.size() - 1, 2); }),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(CodeThrownBy([&] { bus.ReadMemory(camera, ~std::uint64_t{0}, 2); }),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(
        CodeThrownBy([&] { bus.WriteMemory(camera, bytes.size() - 1, std::vector<std::byte>(2)); }),
        ERROR_INVALID_PARAMETER);
}

// --- races ---

TEST_F(VirtualCamera, CancelsThatRaceWithTheEndLoseNoRequest) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.delay = 1ms;
    Set(behaviour);
    int cancelled = 0;
    int finished = 0;
    for (int round = 0; round < 300; ++round) {
        std::array<std::unique_ptr<Transfer>, 4> reads;
        for (auto& read : reads) {
            read = std::make_unique<Transfer>(UCHAR{SCSI_IOCTL_DATA_IN}, Read6(0, 1), 512);
            ASSERT_EQ(read->Issue(device.get()), DWORD{ERROR_IO_PENDING});
        }
        if (round % 2 == 0)
            reads[0]->Await();  // about when the others end too
        ::CancelIoEx(device.get(), nullptr);
        for (auto& read : reads) {
            const DWORD error = read->Await();
            ASSERT_TRUE(error == 0 || error == ERROR_OPERATION_ABORTED) << error;
            ++(error == 0 ? finished : cancelled);
        }
    }
    EXPECT_EQ(finished + cancelled, 1200);
    EXPECT_GT(finished, 0);
    EXPECT_GT(cancelled, 0);
    EXPECT_EQ(bus.Counters(id).pending, 0u);
    EXPECT_EQ(bus.Counters(id).requests, 1200u);
}

/// Issues requests until the camera refuses one, and waits for all of them: no thread may end
/// before its requests have. Returns how many were pended; throws if one does not end, or ends in
/// any other way than by the unplugging.
std::size_t IssueUntilUnplugged(HANDLE device) {
    std::vector<std::unique_ptr<Transfer>> transfers;
    DWORD refusal = ERROR_SUCCESS;
    for (;;) {
        auto transfer = std::make_unique<Transfer>(UCHAR{SCSI_IOCTL_DATA_IN}, Read6(0, 1), 512);
        refusal = transfer->Issue(device);
        if (refusal != ERROR_IO_PENDING)
            break;
        transfers.push_back(std::move(transfer));
    }
    if (refusal != ERROR_DEVICE_NOT_CONNECTED)
        throw std::runtime_error("refused with error " + std::to_string(refusal));
    for (auto& transfer : transfers) {
        const DWORD error = transfer->Await();
        if (error == ERROR_TIMEOUT) {
            for (auto& pending : transfers)
                static_cast<void>(pending.release());  // the system may still write to them
            throw std::runtime_error("a request does not end");
        }
        if (error != ERROR_DEVICE_NOT_CONNECTED)
            throw std::runtime_error("ended with error " + std::to_string(error));
    }
    return transfers.size();
}

TEST_F(VirtualCamera, RequestsIssuedWhileTheCameraIsUnpluggedAllEnd) {
    vcam::PlugOptions options;
    options.instanceId = L"Storm";
    for (int round = 0; round < 100; ++round) {
        PlugAndOpen(options);
        vcam::Behaviour behaviour;
        behaviour.hold = round % 2 == 0;
        behaviour.ignoreCancel = round % 2 == 1;
        behaviour.delay = 1h;
        Set(behaviour);
        std::array<std::future<std::size_t>, 2> issuers;
        for (auto& issuer : issuers)
            issuer = std::async(std::launch::async, IssueUntilUnplugged, device.get());
        EXPECT_EQ(CodeThrownBy([&] { bus.WaitForPending(id, 20, kPatience); }), 0);
        bus.Unplug(id);
        std::size_t pended = 0;
        for (auto& issuer : issuers)
            ASSERT_NO_THROW(pended += issuer.get()) << "round " << round;
        EXPECT_GE(pended, 20u);
    }
}

TEST_F(VirtualCamera, OneInstanceIdPluggedFromTwoSides) {
    const auto plugAndUnplug = [] {
        vcam::Bus own;
        vcam::PlugOptions options;
        options.instanceId = L"Contended";
        int plugged = 0;
        while (plugged < 30) {
            try {
                own.Unplug(own.Plug(options));
                ++plugged;
            } catch (const std::system_error& error) {
                if (error.code().value() != ERROR_ALREADY_EXISTS)
                    throw;
            }
        }
    };
    auto other = std::async(std::launch::async, plugAndUnplug);
    EXPECT_NO_THROW(plugAndUnplug());
    EXPECT_NO_THROW(other.get());
    EXPECT_TRUE(bus.List().empty());
}

// --- the driver removed while it is in use ---

/// Whatever a test does: the driver is installed again at its end.
struct Reinstalling {
    ~Reinstalling() { EXPECT_EQ(system_test::Vcamctl(L"install").exitCode, 0u); }
};

TEST_F(VirtualCamera, UninstallWithAHandleOpenAndARequestPending) {
    if (!RunsOnWine())
        GTEST_SKIP() << "Windows keeps a driver whose devices are in use until the next start";
    for (int round = 0; round < 3; ++round) {
        PlugAndOpen();
        SetHold();
        Transfer read = ReadIn(Read6(0, 1));
        ASSERT_EQ(read.Issue(device.get()), DWORD{ERROR_IO_PENDING});
        bus.WaitForPending(id, 1, kPatience);
        {
            const Reinstalling reinstalling;
            EXPECT_EQ(system_test::Vcamctl(L"uninstall").exitCode, 0u);
            EXPECT_EQ(read.Await(), DWORD{ERROR_DEVICE_NOT_CONNECTED});
            Transfer late = ReadIn(Read6(0, 1));
            EXPECT_NE(late.Run(device.get()), 0u);
            EXPECT_EQ(CodeThrownBy([] { vcam::Bus(); }), ERROR_FILE_NOT_FOUND);
            if (round == 1)
                device.reset();  // between the drivers
        }
        bus = vcam::Bus();
        UniqueHandle old = std::move(device);
        PlugAndOpen();
        old.reset();  // with the next driver in place
        Transfer inquiry = ReadIn(Cdb({0x12, 0, 0, 0, 36}), 36);
        EXPECT_EQ(inquiry.Run(device.get()), 0u);
        EXPECT_EQ(bus.Counters(id).closes, 0u);
    }
}

TEST_F(VirtualCamera, OpeningAndAskingWhileCamerasComeAndGo) {
    // The path stays the same, so that opens hit a camera in any state of its life.
    vcam::PlugOptions options;
    options.instanceId = L"Flutter";
    const std::wstring path = bus.InterfacePath(bus.Plug(options));
    bus.UnplugAll();
    std::atomic<bool> stop = false;
    std::atomic<int> answered = 0;
    std::thread user([&] {
        while (!stop) {
            const UniqueHandle opened = Open(path);
            if (!opened)
                continue;
            Transfer inquiry = ReadIn(Cdb({0x12, 0, 0, 0, 36}), 36);
            if (inquiry.Run(opened.get()) == 0 && inquiry.DataReturned() == 36)
                ++answered;
        }
    });
    for (int i = 0; i < 100; ++i)
        bus.Unplug(bus.Plug(options));
    const vcam::CameraId last = bus.Plug(options);
    bus.WaitFor(last, vcam::Counter::kRequests, 1, kPatience);
    stop = true;
    user.join();
    EXPECT_GT(answered, 0);
}

}  // namespace
