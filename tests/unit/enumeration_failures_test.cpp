// The look for cameras at the start: its calls of Windows, each of them made to fail.

#include <functional>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>
#include <setupapi.h>

#include "device/device.h"
#include "import_hook.h"
#include "in_process_service.h"

extern "C" {
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::GlobalAlloc) __imp_GlobalAlloc;
extern decltype(&::GlobalFree) __imp_GlobalFree;
extern decltype(&::SetupDiDestroyDeviceInfoList) __imp_SetupDiDestroyDeviceInfoList;
extern decltype(&::SetupDiEnumDeviceInterfaces) __imp_SetupDiEnumDeviceInterfaces;
extern decltype(&::SetupDiGetClassDevsW) __imp_SetupDiGetClassDevsW;
extern decltype(&::SetupDiGetDeviceInterfaceDetailW) __imp_SetupDiGetDeviceInterfaceDetailW;
}

namespace {

using GetList = HookedImport<&__imp_SetupDiGetClassDevsW>;
using DestroyList = HookedImport<&__imp_SetupDiDestroyDeviceInfoList>;
using GetDetail = HookedImport<&__imp_SetupDiGetDeviceInterfaceDetailW>;
using Allocate = HookedImport<&__imp_GlobalAlloc>;
using Free = HookedImport<&__imp_GlobalFree>;

/// Lists of devices and blocks from GlobalAlloc that are not given back yet.
class Borrowed {
public:
    Borrowed()
        : destroyList([this](HDEVINFO list) {
              EXPECT_EQ(lists.erase(list), 1u) << "no list, or destroyed already";
              return DestroyList::Original(list);
          }),
          allocate([this](UINT flags, SIZE_T size) -> HGLOBAL {
              if (++allocations == failingAllocation) {
                  ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                  return nullptr;
              }
              const HGLOBAL block = Allocate::Original(flags, size);
              blocks.insert(block);
              return block;
          }),
          free([this](HGLOBAL block) {
              EXPECT_TRUE(block == nullptr || blocks.erase(block) == 1) << "freed already";
              return Free::Original(block);
          }),
          getList([this](const GUID* classGuid, const wchar_t* enumerator, HWND parent,
                         DWORD flags) -> HDEVINFO {
              EXPECT_EQ(enumerator, nullptr);
              EXPECT_EQ(parent, nullptr);
              EXPECT_EQ(flags, 18u) << "the interfaces of the devices that are present";
              if (classGuid != nullptr && failingClass == *classGuid) {
                  ::SetLastError(ERROR_INVALID_DATA);
                  return INVALID_HANDLE_VALUE;
              }
              const HDEVINFO list = GetList::Original(classGuid, enumerator, parent, flags);
              lists.insert(list);
              ++listsMade;
              return list;
          }) {}

    GUID failingClass{};                // no list of it can be had
    std::size_t failingAllocation = 0;  // counted from 1

    std::set<HDEVINFO> lists;
    std::size_t listsMade = 0;
    std::set<HGLOBAL> blocks;
    std::size_t allocations = 0;

private:
    const DestroyList destroyList;
    const Allocate allocate;
    const Free free;
    const GetList getList;
};

class EnumerationTest : public InProcessService {
protected:
    vcam::CameraId PlugAs(const GUID& interfaceClass) {
        vcam::PlugOptions options;
        options.interfaceClass = interfaceClass;
        return Plug(options);
    }

    std::vector<std::uint32_t> Cameras() const {
        std::vector<std::uint32_t> ids;
        for (std::uint32_t id = 0; id < 10; ++id) {
            if (server->FindDevice(id))
                ids.push_back(id);
        }
        return ids;
    }

    /// Everything borrowed is given back, nothing was said, and clients are served.
    void ExpectCleanStart(const Borrowed& borrowed) {
        EXPECT_EQ(borrowed.lists.size(), 0u) << "lists of devices are left";
        EXPECT_EQ(borrowed.blocks.size(), 0u) << "blocks are left";
        EXPECT_EQ(output.CountError("Error"), 0u) << output.Error();
        ExpectServing();
    }

    using Ids = std::vector<std::uint32_t>;
};

TEST_F(EnumerationTest, AsksForTheInterfacesThatArePresentAndGivesEverythingBack) {
    PlugAs(vcam::kDiskInterface);
    PlugAs(vcam::kCdromInterface);
    const Borrowed borrowed;
    StartServer();
    EXPECT_EQ(Cameras(), (Ids{1, 2}));
    EXPECT_EQ(borrowed.listsMade, 2u);
    EXPECT_GE(borrowed.allocations, 2u);
    ExpectCleanStart(borrowed);
}

TEST_F(EnumerationTest, ClassThatCannotBeListedIsLeftOut) {
    PlugAs(vcam::kDiskInterface);
    const vcam::CameraId cdrom = PlugAs(vcam::kCdromInterface);
    Borrowed borrowed;
    borrowed.failingClass = vcam::kDiskInterface;
    StartServer();
    ASSERT_EQ(Cameras(), Ids{1});
    EXPECT_EQ(server->FindDevice(1)->Path(), bus.InterfacePath(cdrom));
    ExpectCleanStart(borrowed);
}

TEST_F(EnumerationTest, InterfaceWithoutDetailIsLeftOutAndThoseBehindItAreNot) {
    // The two calls for an interface: the size of its detail, and the detail.
    for (const bool sizeFails : {true, false}) {
        SCOPED_TRACE(sizeFails ? "no size" : "no detail");
        const vcam::CameraId first = Plug();
        const vcam::CameraId second = Plug();
        const std::wstring lost = bus.InterfacePath(first);
        const std::wstring kept = bus.InterfacePath(second);
        const Borrowed borrowed;
        std::size_t failures = 0;
        const GetDetail getDetail([&](HDEVINFO list, SP_DEVICE_INTERFACE_DATA* data,
                                      SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD size,
                                      DWORD* needed, SP_DEVINFO_DATA* device) -> BOOL {
            // Which interface it is, the detail itself says.
            DWORD wanted = 0;
            GetDetail::Original(list, data, nullptr, 0, &wanted, nullptr);
            const auto block = std::make_unique<std::byte[]>(wanted);
            auto* const known = new (block.get()) SP_DEVICE_INTERFACE_DETAIL_DATA_W{};
            known->cbSize = sizeof(*known);
            GetDetail::Original(list, data, known, wanted, nullptr, nullptr);
            if (known->DevicePath == lost && (detail == nullptr) == sizeFails) {
                ++failures;
                if (detail != nullptr)  // filled in, and failed all the same
                    GetDetail::Original(list, data, detail, size, needed, device);
                ::SetLastError(ERROR_NO_SUCH_DEVINST);
                return FALSE;
            }
            return GetDetail::Original(list, data, detail, size, needed, device);
        });
        StartServer();
        EXPECT_EQ(failures, 1u);
        ASSERT_EQ(Cameras(), Ids{1});
        EXPECT_EQ(server->FindDevice(1)->Path(), kept);
        ExpectCleanStart(borrowed);
        StopServer();
        bus.UnplugAll();
        ForgetPlugged();
    }
}

TEST_F(EnumerationTest, EnumerationThatFailsEndsItsClass) {
    PlugAs(vcam::kDiskInterface);
    PlugAs(vcam::kDiskInterface);
    PlugAs(vcam::kCdromInterface);
    const Borrowed borrowed;
    using Enumerate = HookedImport<&__imp_SetupDiEnumDeviceInterfaces>;
    const Enumerate enumerate([](HDEVINFO list, SP_DEVINFO_DATA* device, const GUID* classGuid,
                                 DWORD index, SP_DEVICE_INTERFACE_DATA* data) -> BOOL {
        EXPECT_EQ(device, nullptr);
        EXPECT_EQ(data->cbSize, 32u);
        if (*classGuid == vcam::kDiskInterface) {
            ::SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        }
        return Enumerate::Original(list, device, classGuid, index, data);
    });
    StartServer();
    EXPECT_EQ(Cameras(), Ids{1});
    ExpectCleanStart(borrowed);
}

TEST_F(EnumerationTest, NoMemoryForADetailEndsTheStartAndGivesEverythingBack) {
    Plug();
    {
        Borrowed borrowed;
        borrowed.failingAllocation = 1;
        EXPECT_THROW(StartServer(), std::bad_alloc);
        EXPECT_EQ(borrowed.allocations, 1u);
        EXPECT_EQ(borrowed.lists.size(), 0u);
        EXPECT_EQ(borrowed.blocks.size(), 0u);
    }
    StartServer();
    EXPECT_EQ(Cameras(), Ids{1}) << "the first camera of the new server";
}

TEST_F(EnumerationTest, DeviceForWhoseDescriptorIsNoMemoryIsNoCamera) {
    const vcam::CameraId camera = Plug();
    StartServer();
    server.reset();
    port.Drain();
    Borrowed borrowed;
    server = std::make_unique<Server>(port.Get());
    const std::size_t forOneStart = borrowed.allocations;
    StopServer();
    // The last block of a start is the descriptor of the last device, this one.
    borrowed.allocations = 0;
    borrowed.failingAllocation = forOneStart;
    StartServer();
    EXPECT_EQ(Cameras(), Ids{});
    EXPECT_EQ(bus.Counters(camera).opens, bus.Counters(camera).closes);
    ExpectCleanStart(borrowed);
    InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(camera));
    EXPECT_EQ(Cameras(), Ids{1}) << "with memory it is one";
}

TEST_F(EnumerationTest, CameraBehindTwoInterfacesIsTwoCameras) {
    const vcam::CameraId camera = Plug();
    const std::wstring cdrom = bus.InterfacePath(camera);
    std::wstring disk = cdrom;  // the same device, another interface
    disk.replace(disk.find(L"{53f56308"), 9, L"{53f56307");
    using Create = HookedImport<&__imp_CreateFileW>;
    const Create create([&](const wchar_t* path, DWORD access, DWORD share,
                            SECURITY_ATTRIBUTES* security, DWORD how, DWORD flags, HANDLE like) {
        return Create::Original(path == disk ? cdrom.c_str() : path, access, share, security, how,
                                flags, like);
    });
    StartServer();
    InterfaceEvent(DBT_DEVICEARRIVAL, disk);
    ASSERT_EQ(Cameras(), (Ids{1, 2}));
    EXPECT_EQ(server->FindDevice(1)->Path(), cdrom);
    EXPECT_EQ(server->FindDevice(2)->Path(), disk);
    InterfaceEvent(DBT_DEVICEREMOVECOMPLETE, cdrom);
    EXPECT_EQ(Cameras(), Ids{2});
}

}  // namespace
