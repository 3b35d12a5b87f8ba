#include <array>
#include <cstddef>
#include <cstring>
#include <string>

// Before the other headers: makes them define their GUIDs here.
#include <initguid.h>
// clang-format off: must follow
#include <windows.h>
#include <winioctl.h>
// clang-format on

#include "device/camera_identification.h"
#include "exit_code.h"
#include "facts.h"
#include "report_parts.h"
#include "windows/unique_device_info_list.h"
#include "windows/unique_handle.h"
#include "windows/utf.h"

namespace {

/// A string of a descriptor of `size` bytes, behind which the buffer has a zero. Null if there is
/// none.
Json StringAt(char* descriptor, DWORD offset, DWORD size) {
    if (offset == 0 || offset >= size)
        return nullptr;
    return ToUtf8(ToUtf16(TrimSpaces(descriptor + offset)));
}

Json DescriptorOf(const wchar_t* path) {
    // No access rights, like the service: programs that read or write are not disturbed.
    const UniqueHandle device = OwnFile(::CreateFileW(path, 0, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                                      nullptr, OPEN_EXISTING, 0, nullptr));
    if (!device)
        throw SystemFailure("cannot open the device");
    STORAGE_PROPERTY_QUERY query{};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    std::array<char, 4097> buffer{};
    DWORD size = 0;
    if (!::DeviceIoControl(device.get(), IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query),
                           buffer.data(), static_cast<DWORD>(buffer.size() - 1), &size, nullptr))
        throw SystemFailure("cannot query the device's descriptor");
    STORAGE_DEVICE_DESCRIPTOR descriptor{};
    std::memcpy(&descriptor, buffer.data(), sizeof(descriptor));
    return {{"vendor", StringAt(buffer.data(), descriptor.VendorIdOffset, size)},
            {"product", StringAt(buffer.data(), descriptor.ProductIdOffset, size)},
            {"revision", StringAt(buffer.data(), descriptor.ProductRevisionOffset, size)},
            {"device_type", descriptor.DeviceType},
            {"bus_type", static_cast<int>(descriptor.BusType)},
            {"removable_media", descriptor.RemovableMedia != FALSE}};
}

/// The path and the instance of an interface.
Json InterfaceOf(HDEVINFO list, SP_DEVICE_INTERFACE_DATA& interfaceData) {
    alignas(SP_DEVICE_INTERFACE_DETAIL_DATA_W) std::array<std::byte, 4096> buffer{};
    auto* const detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(buffer.data());
    detail->cbSize = sizeof(*detail);
    SP_DEVINFO_DATA device{};
    device.cbSize = sizeof(device);
    std::array<wchar_t, 512> instance{};
    if (!::SetupDiGetDeviceInterfaceDetailW(list, &interfaceData, detail,
                                            static_cast<DWORD>(buffer.size()), nullptr, &device) ||
        !::SetupDiGetDeviceInstanceIdW(list, &device, instance.data(),
                                       static_cast<DWORD>(instance.size()), nullptr))
        throw SystemFailure("cannot read the path of the interface");
    Json json = {{"path", ToUtf8(detail->DevicePath)},
                 {"instance", ToUtf8(instance.data())},
                 {"camera", IdentifyCamera(detail->DevicePath, false)}};
    AddFact(json, "descriptor", [&] { return DescriptorOf(detail->DevicePath); });
    return json;
}

Json InterfacesOf(const GUID& type) {
    const HDEVINFO devices =
        ::SetupDiGetClassDevsW(&type, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    if (devices == INVALID_HANDLE_VALUE)
        throw SystemFailure("cannot list the interfaces");
    const UniqueDeviceInfoList list(devices);
    Json interfaces = Json::array();
    SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    for (DWORD i = 0; ::SetupDiEnumDeviceInterfaces(list.get(), nullptr, &type, i, &data); ++i) {
        Json entry;
        AddFact(entry, "interface", [&] { return InterfaceOf(list.get(), data); });
        interfaces.push_back(entry);
    }
    if (::GetLastError() != ERROR_NO_MORE_ITEMS)
        throw SystemFailure("cannot list the interfaces");
    return interfaces;
}

}  // namespace

void ReportCameras(ReportFolder& folder) {
    Json json = NewJson();
    AddFact(json, "disks", [] { return InterfacesOf(GUID_DEVINTERFACE_DISK); });
    AddFact(json, "cd_roms", [] { return InterfacesOf(GUID_DEVINTERFACE_CDROM); });
    folder.Write("cameras.json", json);
}
