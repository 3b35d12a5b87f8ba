// Installing the virtual camera driver on this machine, and taking it off again.
#pragma once

#include <string>

namespace vcam {

/// Makes the root-enumerated bus device and installs the driver for it from this INF file, or
/// updates the driver when the device is there already. The .sys file lies beside the INF.
/// On return the bus can be opened. Needs administrator rights; on Windows the driver must be
/// signed (or test signing be on).
/// Throws std::system_error.
void InstallDriver(const std::wstring& infPath);

/// Unplugs every camera and removes the bus device, the driver's service and its files. Does
/// nothing where nothing is installed. Throws std::system_error.
void UninstallDriver();

}  // namespace vcam
