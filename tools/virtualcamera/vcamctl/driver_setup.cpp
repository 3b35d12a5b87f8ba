#include "driver_setup.h"

#include <windows.h>

#include <newdev.h>
#include <setupapi.h>

#include <array>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "failure.h"
#include "virtual_camera.h"
#include "windows/unique_device_info_list.h"
#include "windows/unique_registry_key.h"
#include "windows/unique_service_handle.h"
#include "windows/utf.h"

namespace vcam {
namespace {

constexpr wchar_t kHardwareId[] = L"ROOT\\OrvikVirtualCamera";
constexpr wchar_t kServiceName[] = L"orvikvcam";
constexpr wchar_t kDriverFile[] = L"orvikvcam.sys";

/// Wine's process for drivers sometimes ends while it starts (9 of 460 times on a busy machine): it
/// takes the order to load the driver before its plug and play manager is there.
constexpr int kMostStarts = 5;

UniqueDeviceInfoList OwnList(HDEVINFO list, const std::string& what) {
    if (list == INVALID_HANDLE_VALUE)
        FailLast(what);
    return UniqueDeviceInfoList(list);
}

/// Whether the first hardware id of this device is ours.
bool IsOurBus(HDEVINFO list, SP_DEVINFO_DATA* device) {
    std::array<wchar_t, 256> ids = {};
    return ::SetupDiGetDeviceRegistryPropertyW(list, device, SPDRP_HARDWAREID, nullptr,
                                               reinterpret_cast<BYTE*>(ids.data()),
                                               sizeof(ids) - 2 * sizeof(wchar_t), nullptr) &&
           ::CompareStringOrdinal(ids.data(), -1, kHardwareId, -1, TRUE) == CSTR_EQUAL;
}

/// Calls `action` for each of our bus devices, present or not. Usually there is one or none.
template <typename Action>
void ForEachBus(Action action) {
    const UniqueDeviceInfoList list =
        OwnList(::SetupDiGetClassDevsW(nullptr, L"ROOT", nullptr, DIGCF_ALLCLASSES),
                "cannot list the root-enumerated devices");
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    for (DWORD index = 0; ::SetupDiEnumDeviceInfo(list.get(), index, &device); ++index) {
        if (IsOurBus(list.get(), &device))
            action(list.get(), &device);
    }
}

bool BusExists() {
    bool found = false;
    ForEachBus([&](HDEVINFO, SP_DEVINFO_DATA*) { found = true; });
    return found;
}

void CreateBus(const std::wstring& infPath) {
    GUID classGuid = {};
    std::array<wchar_t, 64> className = {};
    if (!::SetupDiGetINFClassW(infPath.c_str(), &classGuid, className.data(),
                               static_cast<DWORD>(className.size()), nullptr))
        FailLast("cannot read the INF file " + ToUtf8(infPath));
    const UniqueDeviceInfoList list = OwnList(::SetupDiCreateDeviceInfoList(&classGuid, nullptr),
                                              "cannot create a list of devices");
    SP_DEVINFO_DATA device = {};
    device.cbSize = sizeof(device);
    if (!::SetupDiCreateDeviceInfoW(list.get(), className.data(), &classGuid, nullptr, nullptr,
                                    DICD_GENERATE_ID, &device))
        FailLast("cannot create the bus device");

    std::vector<wchar_t> ids(std::begin(kHardwareId), std::end(kHardwareId));
    ids.push_back(L'\0');  // a list of strings ends with an empty one
    if (!::SetupDiSetDeviceRegistryPropertyW(list.get(), &device, SPDRP_HARDWAREID,
                                             reinterpret_cast<const BYTE*>(ids.data()),
                                             static_cast<DWORD>(ids.size() * sizeof(wchar_t))))
        FailLast("cannot set the hardware id of the bus device");
    if (!::SetupDiCallClassInstaller(DIF_REGISTERDEVICE, list.get(), &device))
        FailLast("cannot register the bus device");
}

void RemoveBus(HDEVINFO list, SP_DEVINFO_DATA* device) {
    if (!::SetupDiCallClassInstaller(DIF_REMOVE, list, device))
        FailLast("cannot remove the bus device");
}

/// None if the driver does not run.
std::optional<Bus> RunningBus() {
    try {
        return Bus();
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

/// The name under which the system keeps its copy of the driver's INF ("oem7.inf"), or empty.
std::wstring InstalledInf(HDEVINFO list, SP_DEVINFO_DATA* device) {
    const HKEY key = ::SetupDiOpenDevRegKey(list, device, DICS_FLAG_GLOBAL, 0, DIREG_DRV, KEY_READ);
    if (key == INVALID_HANDLE_VALUE)
        return {};
    const UniqueRegistryKey owner(key);
    std::array<wchar_t, MAX_PATH> name = {};
    DWORD size = sizeof(name) - sizeof(wchar_t);
    if (::RegQueryValueExW(key, L"InfPath", nullptr, nullptr, reinterpret_cast<BYTE*>(name.data()),
                           &size) != ERROR_SUCCESS)
        return {};
    return name.data();
}

void RemoveService() {
    const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!manager)
        FailLast("cannot connect to the service control manager");
    const UniqueServiceHandle service(
        ::OpenServiceW(manager.get(), kServiceName, SERVICE_STOP | DELETE));
    if (!service) {
        if (::GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST)
            return;
        FailLast("cannot open the driver's service " + ToUtf8(kServiceName));
    }
    // A driver whose last device is gone has stopped by itself on Windows, then this fails.
    SERVICE_STATUS status = {};
    ::ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
    if (!::DeleteService(service.get()) && ::GetLastError() != ERROR_SERVICE_MARKED_FOR_DELETE)
        FailLast("cannot delete the driver's service " + ToUtf8(kServiceName));
}

std::wstring InstalledDriverPath() {
    std::array<wchar_t, MAX_PATH> folder = {};
    const UINT length = ::GetSystemDirectoryW(folder.data(), static_cast<UINT>(folder.size()));
    if (length == 0 || length >= folder.size())
        FailLast("cannot determine the system folder");
    return std::wstring(folder.data()) + L"\\drivers\\" + kDriverFile;
}

/// Gives the bus device the driver, and starts it. `existed`: a failure leaves the bus device
/// there.
void UpdateDriver(const std::wstring& infPath, bool existed) {
    BOOL reboot = FALSE;
    if (!::UpdateDriverForPlugAndPlayDevicesW(nullptr, kHardwareId, infPath.c_str(),
                                              INSTALLFLAG_FORCE, &reboot)) {
        const DWORD error = ::GetLastError();
        if (!existed)
            ForEachBus(RemoveBus);  // a device without a driver would prevent the next installation
        FailLast("cannot install the driver " + ToUtf8(infPath), error);
    }
    if (reboot)
        FailLast("the driver is installed, but Windows must be restarted",
                 ERROR_SUCCESS_REBOOT_REQUIRED);
}

}  // namespace

void InstallDriver(const std::wstring& infPath) {
    const bool existed = BusExists();
    if (!existed)
        CreateBus(infPath);
    UpdateDriver(infPath, existed);
    for (int start = 1; start < kMostStarts && !RunningBus(); ++start)
        UpdateDriver(infPath, existed);
    Bus{};  // throws when the driver does not run
}

void UninstallDriver() {
    std::vector<std::wstring> infs;
    if (std::optional<Bus> bus = RunningBus())
        bus->UnplugAll();
    ForEachBus([&](HDEVINFO list, SP_DEVINFO_DATA* device) {
        if (std::wstring inf = InstalledInf(list, device); !inf.empty())
            infs.push_back(std::move(inf));
        RemoveBus(list, device);
    });
    RemoveService();
    for (const std::wstring& inf : infs) {
        if (!::SetupUninstallOEMInfW(inf.c_str(), SUOI_FORCEDELETE, nullptr) &&
            ::GetLastError() != ERROR_FILE_NOT_FOUND)
            FailLast("cannot remove the driver's INF file " + ToUtf8(inf));
    }
    const std::wstring driver = InstalledDriverPath();
    if (!::DeleteFileW(driver.c_str()) && ::GetLastError() != ERROR_FILE_NOT_FOUND)
        FailLast("cannot delete the driver file " + ToUtf8(driver));
}

}  // namespace vcam
