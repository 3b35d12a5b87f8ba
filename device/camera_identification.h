#pragma once

/// Whether the device behind a device-interface path (UTF-16, NUL-terminated) is one of our
/// cameras, judged by the strings of its storage device descriptor (STORAGE_DEVICE_DESCRIPTOR of
/// <winioctl.h>, asked for with IOCTL_STORAGE_QUERY_PROPERTY), trimmed of spaces and compared byte
/// for byte:
/// - vendor "Orvik" and revision "F01", whatever the product; or
/// - only if `acceptChipIdentity`: vendor "ZORAN" and product "COACH6 (I62)", whatever the
///   revision: the camera's processor without the camera's firmware.
///
/// Returns false for any failure: the path can't be opened, a query fails or returns too few bytes.
/// Waits for the driver to reply. Any thread may call it. Never throws.
bool IdentifyCamera(const wchar_t* path, bool acceptChipIdentity) noexcept;

/// Cuts leading and trailing spaces (0x20 only) off a NUL-terminated string, the trailing ones by
/// writing NUL over them. Returns the new start, inside the same string.
char* TrimSpaces(char* text) noexcept;
