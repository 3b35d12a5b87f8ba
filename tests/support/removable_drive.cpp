#include "removable_drive.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <vector>

#include <windows.h>

#include <winioctl.h>

#include "windows/unique_handle.h"

namespace {

namespace fs = std::filesystem;

// Wine's own control code of its mount manager, and what goes with it.
constexpr DWORD kDefineUnixDrive =
    CTL_CODE('m', 32, METHOD_BUFFERED, FILE_READ_ACCESS | FILE_WRITE_ACCESS);

struct UnixDrive {
    std::uint32_t size;  // with the path behind it
    std::uint32_t type;  // as GetDriveTypeW
    std::uint32_t fileSystem;
    std::uint32_t serial;
    std::uint64_t device;
    wchar_t letter;
    std::uint16_t mountPointOffset;  // of the folder's path in the host's encoding
    std::uint16_t deviceOffset;
    std::uint16_t labelOffset;
};

constexpr std::uint32_t kNoDrive = DRIVE_NO_ROOT_DIR;

using GetUnixFileName = char*(CDECL*)(const wchar_t* path);

GetUnixFileName FindGetUnixFileName() {
    return reinterpret_cast<GetUnixFileName>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "wine_get_unix_file_name")));
}

[[noreturn]] void FailLast(const char* what) {
    throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), what);
}

/// The path of an existing folder as the host knows it.
std::string HostPath(const std::wstring& folder) {
    char* const path = FindGetUnixFileName()(folder.c_str());
    if (path == nullptr)
        FailLast("wine_get_unix_file_name");
    std::string copy = path;
    ::HeapFree(::GetProcessHeap(), 0, path);
    return copy;
}

/// `path` as the host knows it; empty for none.
void Define(wchar_t letter, std::uint32_t type, const std::string& path) {
    UnixDrive drive{};
    drive.size = static_cast<std::uint32_t>(sizeof(drive) + path.size() + 1);
    drive.type = type;
    drive.letter = static_cast<wchar_t>(letter - L'A' + L'a');
    drive.mountPointOffset = path.empty() ? 0 : sizeof(drive);
    std::vector<std::byte> input(drive.size);
    std::memcpy(input.data(), &drive, sizeof(drive));
    std::memcpy(input.data() + sizeof(drive), path.c_str(), path.size() + 1);

    const UniqueHandle manager = OwnFile(
        ::CreateFileW(LR"(\\.\MountPointManager)", GENERIC_READ | GENERIC_WRITE,
                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!manager)
        FailLast("the mount manager");
    DWORD returned = 0;
    if (!::DeviceIoControl(manager.get(), kDefineUnixDrive, input.data(), drive.size, nullptr, 0,
                           &returned, nullptr))
        FailLast("defining a drive");
}

}  // namespace

bool RemovableDrive::IsSupported() {
    return FindGetUnixFileName() != nullptr;
}

RemovableDrive::RemovableDrive(wchar_t driveLetter, Kind driveKind, const Medium& medium)
    : folder(fs::temp_directory_path() / (L"orvik test drive " + std::wstring(1, driveLetter))),
      ejected(folder + L" ejected"),
      letter(driveLetter),
      kind(driveKind) {
    if ((::GetLogicalDrives() & (1u << (letter - L'A'))) != 0)
        throw std::system_error(ERROR_ALREADY_ASSIGNED, std::system_category(), "drive letter");
    fs::remove_all(folder);
    fs::remove_all(ejected);
    fs::create_directory(folder);
    hostPath = HostPath(folder);
    for (const std::wstring& file : medium.files)
        MakeFile(file);
    if (medium.isMissing)
        Eject();
    Appear();
}

RemovableDrive::~RemovableDrive() {
    try {
        Disappear();
        fs::remove_all(folder);
        fs::remove_all(ejected);
    } catch (const std::exception& exception) {
        std::cerr << exception.what() << '\n';
    }
}

void RemovableDrive::Disappear() {
    if (!present)
        return;
    Define(letter, kNoDrive, "");
    present = false;
}

void RemovableDrive::Appear() {
    Define(letter, static_cast<std::uint32_t>(kind), hostPath);
    present = true;
}

void RemovableDrive::Eject() {
    fs::rename(folder, ejected);
}

void RemovableDrive::Insert() {
    fs::rename(ejected, folder);
}

void RemovableDrive::MakeFile(const std::wstring& path) const {
    const fs::path file = fs::path(folder) / path;
    fs::create_directories(file.parent_path());
    const UniqueHandle made =
        OwnFile(::CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    if (!made)
        FailLast("making a file");
}
