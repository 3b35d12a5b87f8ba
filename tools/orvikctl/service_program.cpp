#include "service_program.h"

#include <cstddef>
#include <memory>
#include <system_error>
#include <vector>

#include <windows.h>

#include <shellapi.h>

#include "exit_code.h"
#include "service_control.h"
#include "service_folders.h"
#include "windows/system_dll.h"
#include "windows/unique_memory.h"
#include "windows/utf.h"

namespace {

bool IsFile(const std::filesystem::path& path) {
    std::error_code error;
    return path.is_absolute() && std::filesystem::is_regular_file(path, error);
}

/// The program of a command line without quotes, in which the path may contain spaces. Windows
/// takes the shortest sequence of words that is the name of a file.
std::filesystem::path UnquotedProgram(const std::wstring& commandLine) {
    std::size_t end = 0;
    do {
        end = commandLine.find_first_of(L" \t", end + 1);
        std::filesystem::path words = commandLine.substr(0, end);
        if (IsFile(words))
            return words;
        if (!words.has_extension() && IsFile(words += L".exe"))
            return words;
    } while (end != std::wstring::npos);
    throw SystemFailure(
        "cannot find the program in the service's command line " + ToUtf8(commandLine),
        ERROR_FILE_NOT_FOUND);
}

}  // namespace

std::filesystem::path ServiceProgram() {
    const std::wstring commandLine = ExpandForSystem(ServiceCommandLine());
    if (!commandLine.starts_with(L'"'))
        return UnquotedProgram(commandLine);
    int count = 0;
    const std::unique_ptr<LPWSTR, LocalFreer> words(
        ::CommandLineToArgvW(commandLine.c_str(), &count));
    if (!words || count == 0)
        throw SystemFailure("cannot parse the service's command line " + ToUtf8(commandLine));
    return words.get()[0];
}

std::string ServiceVersion() {
    return VersionOf(ServiceProgram());
}

std::string VersionOf(const std::filesystem::path& file) {
    constexpr wchar_t kDll[] = L"version.dll";
    const auto sizeOf =
        SystemFunction<decltype(&::GetFileVersionInfoSizeW)>(kDll, "GetFileVersionInfoSizeW");
    const auto read = SystemFunction<decltype(&::GetFileVersionInfoW)>(kDll, "GetFileVersionInfoW");
    const auto find = SystemFunction<decltype(&::VerQueryValueW)>(kDll, "VerQueryValueW");
    if (sizeOf == nullptr || read == nullptr || find == nullptr)
        throw SystemFailure("cannot load version.dll");

    const std::wstring path = file.wstring();
    std::vector<std::byte> resource(sizeOf(path.c_str(), nullptr));
    VS_FIXEDFILEINFO* version = nullptr;
    UINT size = 0;
    if (resource.empty() ||
        !read(path.c_str(), 0, static_cast<DWORD>(resource.size()), resource.data()) ||
        !find(resource.data(), L"\\", reinterpret_cast<void**>(&version), &size))
        throw SystemFailure("cannot read the version of " + ToUtf8(path));
    return std::to_string(HIWORD(version->dwFileVersionMS)) + "." +
           std::to_string(LOWORD(version->dwFileVersionMS)) + "." +
           std::to_string(HIWORD(version->dwFileVersionLS));
}
