#include "report_folder.h"

#include <system_error>

#include <windows.h>

#include "exit_code.h"
#include "partial_file.h"
#include "windows/unique_handle.h"
#include "windows/utf.h"

ReportFolder::ReportFolder(const std::filesystem::path& folder) : path(folder) {
    if (::CreateDirectoryW(path.c_str(), nullptr))
        return;
    const DWORD code = ::GetLastError();
    if (code == ERROR_ALREADY_EXISTS)
        throw Failure(ExitCode::kFailure, "cannot make the folder " + ToUtf8(path.native()) +
                                              ", because it exists already; name a new one");
    throw FileError("cannot make the folder", path, code);
}

ReportFolder::~ReportFolder() {
    std::error_code ignored;
    if (!kept)
        std::filesystem::remove_all(path, ignored);
}

void ReportFolder::Write(const std::filesystem::path& name, const std::string& content) {
    const std::filesystem::path target = path / name;
    const UniqueHandle file = OwnFile(::CreateFileW(target.c_str(), GENERIC_WRITE, 0, nullptr,
                                                    CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    DWORD written = 0;
    if (!file || !::WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()),
                              &written, nullptr))
        throw FileError("cannot write", target);
}

void ReportFolder::Write(const std::filesystem::path& name, const Json& content) {
    Write(name, content.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
}

void ReportFolder::Copy(const std::filesystem::path& source, const std::filesystem::path& name) {
    if (!::CopyFileW(source.c_str(), (path / name).c_str(), TRUE))
        throw FileError("cannot copy", source);
}

void ReportFolder::MakeFolder(const std::filesystem::path& name) {
    if (!::CreateDirectoryW((path / name).c_str(), nullptr))
        throw FileError("cannot make the folder", path / name);
}
