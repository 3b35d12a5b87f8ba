// The table of cameras: those found at the start, arriving, leaving and given up.

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <new>

#include <windows.h>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/smart_ptr/make_shared.hpp>

#include <setupapi.h>
#include <winioctl.h>

#include "device/camera_identification.h"
#include "device/device.h"
#include "device/io_operation.h"
#include "device/windows_exception.h"
#include "server/server.h"
#include "session/server_client.h"
#include "windows/unique_device_info_list.h"
#include "windows/unique_memory.h"

namespace {

using UniqueInterfaceDetail = std::unique_ptr<SP_DEVICE_INTERFACE_DETAIL_DATA_W, GlobalFreer>;

/// The interface's path is in the result's DevicePath. Empty if the interface has just gone.
UniqueInterfaceDetail GetInterfaceDetail(HDEVINFO list, SP_DEVICE_INTERFACE_DATA& data) {
    DWORD size = 0;
    ::SetupDiGetDeviceInterfaceDetailW(list, &data, nullptr, 0, &size, nullptr);
    if (size < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W))
        return nullptr;
    UniqueInterfaceDetail detail(
        static_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(::GlobalAlloc(GMEM_FIXED, size)));
    if (!detail)
        throw std::bad_alloc();
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (!::SetupDiGetDeviceInterfaceDetailW(list, &data, detail.get(), size, nullptr, nullptr))
        return nullptr;
    return detail;
}

/// The record as one about a device interface. Null for any other, and for a forged one: too short
/// for a name, or with a name that does not end within it.
const DEV_BROADCAST_DEVICEINTERFACE_W* AsInterfaceRecord(const DEV_BROADCAST_HDR* header) noexcept {
    constexpr std::size_t kNameOffset = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
    if (header->dbch_devicetype != DBT_DEVTYP_DEVICEINTERFACE || header->dbch_size < kNameOffset)
        return nullptr;
    const auto* const record = reinterpret_cast<const DEV_BROADCAST_DEVICEINTERFACE_W*>(header);
    const wchar_t* const name = record->dbcc_name;
    const wchar_t* const end = name + (header->dbch_size - kNameOffset) / sizeof(wchar_t);
    return std::find(name, end, L'\0') != end ? record : nullptr;
}

bool IsSamePath(const Device& device, const wchar_t* path) {
    return boost::algorithm::iequals(device.Path(), path);
}

}  // namespace

void Server::EnumerateInterfaces(const GUID& classGuid) {
    const HDEVINFO present =
        ::SetupDiGetClassDevsW(&classGuid, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    if (present == INVALID_HANDLE_VALUE)
        return;
    const UniqueDeviceInfoList list(present);

    SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    for (DWORD index = 0;
         ::SetupDiEnumDeviceInterfaces(list.get(), nullptr, &classGuid, index, &data); ++index) {
        if (const auto detail = GetInterfaceDetail(list.get(), data))
            DeviceArrival(detail->DevicePath);
    }
}

void Server::PostDeviceEvent(WPARAM eventCode, const DEV_BROADCAST_HDR* record) {
    const std::size_t size = record->dbch_size;
    UniqueMalloc copy(std::malloc(std::max(size, sizeof(DEV_BROADCAST_HDR))));
    if (!copy)
        throw std::bad_alloc();
    // A forged record may be shorter than its header. DeviceEvent() must find one all the same.
    std::memset(copy.get(), 0, sizeof(DEV_BROADCAST_HDR));
    std::memcpy(copy.get(), record, size);
    auto operation = std::make_unique<IoOperation>(CallOwner<&Server::DeviceEvent>(LastSelf()));
    operation->transferBuffer = copy.get();
    if (!::PostQueuedCompletionStatus(completionPort, 0, eventCode, &operation->overlapped))
        throw WindowsException("PostQueuedCompletionStatus failed.");
    // Posted: both belong to the packet now, and DeviceEvent frees them.
    static_cast<void>(copy.release());
    static_cast<void>(operation.release());
}

void Server::DeviceEvent(IoOperation* operation) {
    const UniqueMalloc block(operation->transferBuffer);
    const std::uint64_t eventCode = operation->completionKey;
    delete operation;

    const auto* const record =
        AsInterfaceRecord(static_cast<const DEV_BROADCAST_HDR*>(block.get()));
    if (record == nullptr)
        return;
    try {
        // Kept on purpose: only arrivals of CD-ROM interfaces are handled, but removals of every
        // class. The enumeration at the start takes disk and CD-ROM interfaces.
        if (eventCode == DBT_DEVICEARRIVAL && record->dbcc_classguid == GUID_DEVINTERFACE_CDROM)
            DeviceArrival(record->dbcc_name);
        else if (eventCode == DBT_DEVICEREMOVECOMPLETE)
            DeviceDetach(*record);
    } catch (...) {
        std::cerr << "Error in Server::DeviceEvent().\n";
        throw;
    }
}

void Server::DeviceArrival(const wchar_t* path) {
    std::wcout << L"DeviceArrival: " << path << std::endl;
    if (!IdentifyCamera(path, false))
        return;
    for (const auto& [id, device] : devices) {
        if (IsSamePath(*device, path))
            return;
    }
    const auto device = boost::make_shared<Device>(path, nextDeviceId, completionPort);
    devices.emplace(static_cast<std::int32_t>(nextDeviceId), device);
    ++nextDeviceId;
    if (mainCommunicator)
        static_cast<void>(mainCommunicator->SendCameraAttached(*device));
    else
        LaunchApplication();
}

void Server::DeviceDetach(const DEV_BROADCAST_DEVICEINTERFACE_W& record) {
    for (auto entry = devices.begin(); entry != devices.end(); ++entry) {
        if (IsSamePath(*entry->second, record.dbcc_name)) {
            const boost::shared_ptr<Device> device = entry->second;
            devices.erase(entry);
            TellDetached(*device);
            return;
        }
    }
}

void Server::RemoveDevice(const boost::shared_ptr<Device>& device) {
    if (!device)
        return;
    devices.erase(static_cast<std::int32_t>(device->Id()));
    device->SetRemoved();
    TellDetached(*device);
}

void Server::TellDetached(const Device& device) {
    if (mainCommunicator)
        static_cast<void>(mainCommunicator->SendCameraDetached(device));
    else
        std::cerr << "No main communicator found on device detach.\n";
}
