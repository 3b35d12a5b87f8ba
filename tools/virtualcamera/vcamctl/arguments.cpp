#include "arguments.h"

#include <array>
#include <limits>
#include <stdexcept>

#include <objbase.h>

#include "windows/utf.h"

CLI::Option* AddCamera(CLI::App& command, vcam::CameraId& id) {
    constexpr vcam::CameraId kMost = std::numeric_limits<vcam::CameraId>::max();
    return command.add_option("id", id, "Id of the camera, as printed by plug and list")
        ->check(NumberFrom(vcam::CameraId{1}, kMost));
}

GUID ParseClass(const std::string& name) {
    if (name == "cdrom")
        return vcam::kCdromInterface;
    if (name == "disk")
        return vcam::kDiskInterface;
    GUID guid = {};
    if (FAILED(::CLSIDFromString(ToUtf16(name).c_str(), &guid)))
        throw std::runtime_error("--class must be cdrom, disk or a GUID in braces, not \"" + name +
                                 "\"");
    return guid;
}

std::string ClassName(const GUID& guid) {
    if (::IsEqualGUID(guid, vcam::kCdromInterface))
        return "cdrom";
    if (::IsEqualGUID(guid, vcam::kDiskInterface))
        return "disk";
    std::array<wchar_t, 40> text = {};
    ::StringFromGUID2(guid, text.data(), static_cast<int>(text.size()));
    return ToUtf8(text.data());
}
