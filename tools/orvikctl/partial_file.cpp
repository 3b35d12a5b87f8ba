#include "partial_file.h"

#include <chrono>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <memory>
#include <new>
#include <string>

#include "cancellation.h"
#include "paths.h"
#include "windows/utf.h"

namespace {

/// Virus scanners and indexers hold a file open for some 100 ms.
constexpr std::chrono::seconds kRenameTime{2};
constexpr DWORD kMillisecondsBetweenTries = 50;

/// The failures of a rename to a name whose file is open.
bool IsInUse(DWORD code) noexcept {
    return code == ERROR_ACCESS_DENIED || code == ERROR_SHARING_VIOLATION ||
           code == ERROR_LOCK_VIOLATION || code == ERROR_USER_MAPPED_FILE;
}

/// Before data is received that could not be kept: the rename at the end would fail.
void RequireUsableTarget(const std::filesystem::path& target) {
    const auto require = [&target](bool usable, const char* why) {
        if (!usable)
            throw Failure(ExitCode::kFailure,
                          "cannot create " + ToUtf8(target.native()) + ": " + why);
    };
    require(!FullPath(target).starts_with(LR"(\\.\)"), "it is a device");
    require(target.filename().native().find(L':') == std::wstring::npos,
            "the name of a file must not contain a colon");
    const DWORD attributes = ::GetFileAttributesW(target.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return;
    require((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0, "it is a folder");
    require((attributes & FILE_ATTRIBUTE_READONLY) == 0,
            "a file of this name exists, and is read-only");
}

}  // namespace

bool IsNullDevice(const std::filesystem::path& path) {
    return ::_wcsicmp(FullPath(path).c_str(), LR"(\\.\NUL)") == 0;
}

FileError::FileError(const char* text, const std::filesystem::path& file, DWORD systemCode)
    : SystemFailure(std::string(text) + " " + ToUtf8(file.native()), systemCode) {}

PartialFile::PartialFile(const std::filesystem::path& targetFile)
    : target(targetFile),
      partial(targetFile) {
    RequireUsableTarget(target);
    partial += L"." + std::to_wstring(::GetCurrentProcessId()) + L".part";
    file = OwnFile(::CreateFileW(partial.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, CREATE_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        throw FileError("cannot create", partial);
}

PartialFile::~PartialFile() {
    if (complete || !file)
        return;
    // By handle, as in Rename().
    FILE_DISPOSITION_INFO disposition{};
    disposition.DeleteFile = TRUE;
    ::SetFileInformationByHandle(file.get(), FileDispositionInfo, &disposition,
                                 sizeof(disposition));
}

void PartialFile::RequireSpace(std::uint64_t bytes) const {
    const std::wstring name = FullPath(target);
    ULARGE_INTEGER available{};
    // A file system that doesn't say how much is free may still have enough.
    if (!::GetDiskFreeSpaceExW(name.substr(0, name.find_last_of(L'\\') + 1).c_str(), &available,
                               nullptr, nullptr) ||
        available.QuadPart >= bytes)
        return;
    throw FileError(("cannot write " + std::to_string(bytes) + " bytes, because only " +
                     std::to_string(available.QuadPart) + " are free, to")
                        .c_str(),
                    target, ERROR_DISK_FULL);
}

void PartialFile::Write(std::span<const std::byte> bytes) {
    DWORD written = 0;
    if (!::WriteFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr))
        throw FileError("cannot write", partial);
}

void PartialFile::Commit() {
    // Flushed first: after a power failure the name could otherwise refer to incomplete content.
    if (!::FlushFileBuffers(file.get()))
        throw FileError("cannot write", partial);
    complete = true;
    const auto deadline = std::chrono::steady_clock::now() + kRenameTime;
    while (const DWORD code = Rename()) {
        const bool again = IsInUse(code) && std::chrono::steady_clock::now() < deadline;
        // There is no event for the end of another program's use.
        if (!again ||
            ::WaitForSingleObject(CancellationEvent(), kMillisecondsBetweenTries) != WAIT_TIMEOUT)
            throw FileError(("the data is complete and is in " + ToUtf8(partial.native()) +
                             ", but that file cannot be renamed to")
                                .c_str(),
                            target, code);
    }
    file.reset();
}

/// The error code, ERROR_SUCCESS if there was none. By handle: were the file closed first, another
/// program could open it before it is renamed, which would make the rename fail.
DWORD PartialFile::Rename() const {
    const std::wstring name = FullPath(target);
    const std::size_t bytes = name.size() * sizeof(wchar_t);
    const std::size_t size = sizeof(FILE_RENAME_INFO) + bytes;
    const auto memory = std::make_unique<std::byte[]>(size);
    auto* const rename = new (memory.get()) FILE_RENAME_INFO{};
    rename->ReplaceIfExists = TRUE;
    rename->FileNameLength = static_cast<DWORD>(bytes);
    std::memcpy(memory.get() + offsetof(FILE_RENAME_INFO, FileName), name.data(), bytes);
    return ::SetFileInformationByHandle(file.get(), FileRenameInfo, rename,
                                        static_cast<DWORD>(size))
               ? ERROR_SUCCESS
               : ::GetLastError();
}
