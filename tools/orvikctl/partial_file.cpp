#include "partial_file.h"

#include <string>

#include "windows/utf.h"

FileError::FileError(const char* text, const std::filesystem::path& file, DWORD systemCode)
    : SystemFailure(std::string(text) + " " + ToUtf8(file.native()), systemCode) {}

PartialFile::PartialFile(const std::filesystem::path& targetFile)
    : target(targetFile),
      partial(targetFile) {
    partial += L"." + std::to_wstring(::GetCurrentProcessId()) + L".part";
    file = OwnFile(::CreateFileW(partial.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        throw FileError("cannot create", partial);
}

PartialFile::~PartialFile() {
    if (committed)
        return;
    file.reset();
    ::DeleteFileW(partial.c_str());
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
    file.reset();
    if (!::MoveFileExW(partial.c_str(), target.c_str(), MOVEFILE_REPLACE_EXISTING))
        throw FileError(("cannot rename " + ToUtf8(partial.native()) + " to").c_str(), target);
    committed = true;
}
