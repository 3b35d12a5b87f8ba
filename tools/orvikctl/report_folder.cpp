#include "report_folder.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <system_error>
#include <vector>

#include <windows.h>

#include <sddl.h>

#include "exit_code.h"
#include "partial_file.h"
#include "windows/unique_handle.h"
#include "windows/unique_memory.h"
#include "windows/utf.h"

namespace {

/// The security identifier of the user who runs this program, as a text.
std::wstring UserIdentifier() {
    HANDLE opened = nullptr;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &opened))
        throw SystemFailure("cannot find the user of this program");
    const UniqueHandle token(opened);
    alignas(TOKEN_USER) std::array<std::byte, sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE> buffer{};
    DWORD size = 0;
    LPWSTR text = nullptr;
    if (!::GetTokenInformation(token.get(), TokenUser, buffer.data(),
                               static_cast<DWORD>(buffer.size()), &size) ||
        !::ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER*>(buffer.data())->User.Sid,
                                  &text))
        throw SystemFailure("cannot find the user of this program");
    const std::unique_ptr<wchar_t, LocalFreer> owner(text);
    return text;
}

/// Nothing is inherited: everybody may read or write in many folders.
std::unique_ptr<void, LocalFreer> AccessRights() {
    const std::wstring text =
        L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FA;;;" + UserIdentifier() + L")";
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(text.c_str(), SDDL_REVISION_1,
                                                                &descriptor, nullptr))
        throw SystemFailure("cannot make the access rights of the folder");
    return std::unique_ptr<void, LocalFreer>(descriptor);
}

}  // namespace

ReportFolder::ReportFolder(const std::filesystem::path& folder) : path(folder) {
    const auto rights = AccessRights();
    SECURITY_ATTRIBUTES attributes{sizeof(attributes), rights.get(), FALSE};
    if (::CreateDirectoryW(path.c_str(), &attributes)) {
        made.push_back(path);
        return;
    }
    const DWORD code = ::GetLastError();
    if (code == ERROR_ALREADY_EXISTS)
        throw Failure(ExitCode::kFailure, "cannot make the folder " + ToUtf8(path.native()) +
                                              ", because it exists already; name a new one");
    throw FileError("cannot make the folder", path, code);
}

ReportFolder::~ReportFolder() {
    if (kept)
        return;
    // Nothing else: an administrator may delete more than the one who can write here.
    std::error_code ignored;
    std::for_each(made.rbegin(), made.rend(),
                  [&](const auto& entry) { std::filesystem::remove(entry, ignored); });
}

void ReportFolder::Write(const std::filesystem::path& name, const std::string& content) {
    const std::filesystem::path target = path / name;
    UniqueHandle file = OwnFile(::CreateFileW(target.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        throw FileError("cannot write", target);
    DWORD written = 0;
    if (!::WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &written,
                     nullptr)) {
        const DWORD code = ::GetLastError();
        file.reset();
        ::DeleteFileW(target.c_str());
        throw FileError("cannot write", target, code);
    }
    made.push_back(target);
}

void ReportFolder::Write(const std::filesystem::path& name, const Json& content) {
    constexpr bool kAsciiOnly = true;
    Write(name, content.dump(2, ' ', kAsciiOnly, Json::error_handler_t::replace) + "\n");
}

void ReportFolder::Copy(const std::filesystem::path& source, const std::filesystem::path& name) {
    if (!::CopyFileW(source.c_str(), (path / name).c_str(), TRUE))
        throw FileError("cannot copy", source);
    made.push_back(path / name);
}

void ReportFolder::MakeFolder(const std::filesystem::path& name) {
    if (!::CreateDirectoryW((path / name).c_str(), nullptr))
        throw FileError("cannot make the folder", path / name);
    made.push_back(path / name);
}
