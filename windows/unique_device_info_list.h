#pragma once

#include <memory>

#include <windows.h>

// After <windows.h>, whose types it uses.
#include <setupapi.h>

// Inline, because a program that links the client library may use the same names itself.
inline namespace orvik_internal {

/// Destroys what SetupDiGetClassDevsW and SetupDiCreateDeviceInfoList return. Those fail with
/// INVALID_HANDLE_VALUE: check before you hand the list over.
struct DeviceInfoListDestroyer {
    using pointer = HDEVINFO;
    void operator()(HDEVINFO list) const noexcept { ::SetupDiDestroyDeviceInfoList(list); }
};
using UniqueDeviceInfoList = std::unique_ptr<void, DeviceInfoListDestroyer>;

}  // namespace orvik_internal
