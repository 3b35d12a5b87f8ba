// Installs the virtual camera driver on this machine, and removes it.
#pragma once

#include <string>

namespace vcam {

/// Creates the root-enumerated bus device and installs its driver from this INF file, or updates
/// the driver if the device exists. `infPath` is a full path; the .sys file is in the same folder.
/// On return the bus can be opened. Requires administrator rights; on Windows the driver must be
/// signed, or test signing switched on.
/// Throws std::system_error.
void InstallDriver(const std::wstring& infPath);

/// Unplugs every camera and removes the bus device, the driver's service and its files. Does
/// nothing if the driver is not installed. Throws std::system_error.
void UninstallDriver();

}  // namespace vcam
