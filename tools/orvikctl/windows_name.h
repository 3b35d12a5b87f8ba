#pragma once

#include <cstdint>
#include <string>

/// The name under which a Windows is sold: `product`, the registry's ProductName, which is
/// "Windows 10 Pro" on Windows 11 Pro too. Windows 11 begins with the build 22000. The
/// registry has the names of servers as they are sold.
std::string WindowsName(const std::string& product, std::uint32_t build, bool server);
