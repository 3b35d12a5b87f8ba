#include "memory_files.h"

#include <stdexcept>

#include <windows.h>

#include "failure.h"
#include "virtual_camera.h"
#include "windows/unique_handle.h"
#include "windows/utf.h"

std::vector<std::byte> ReadFile(const std::string& path) {
    const UniqueHandle file =
        OwnFile(::CreateFileW(ToUtf16(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        FailLast("cannot open " + path);
    // One byte more than the largest memory, so that a larger file is noticed.
    std::vector<std::byte> bytes(std::size_t{vcam::kBlockLimit} * vcam::kBlockSize + 1);
    DWORD count = 0;
    if (!::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr))
        FailLast("cannot read " + path);
    bytes.resize(count);
    return bytes;
}

void WriteFile(const std::string& path, const std::vector<std::byte>& bytes) {
    const UniqueHandle file =
        OwnFile(::CreateFileW(ToUtf16(path).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        FailLast("cannot create " + path);
    DWORD count = 0;
    if (!::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count, nullptr))
        FailLast("cannot write " + path);
}

void CheckFits(const std::string& path, const std::vector<std::byte>& bytes,
               std::uint32_t blockCount) {
    const std::uint64_t memory = std::uint64_t{blockCount} * vcam::kBlockSize;
    if (bytes.size() > memory)
        throw std::runtime_error(path + " is larger than the camera's memory of " +
                                 std::to_string(memory) + " bytes");
}
