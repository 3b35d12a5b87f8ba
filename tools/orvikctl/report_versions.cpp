#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <system_error>

#include <windows.h>

#include "exit_code.h"
#include "facts.h"
#include "partial_file.h"
#include "paths.h"
#include "report_parts.h"
#include "service_folders.h"
#include "service_program.h"
#include "utc_time.h"
#include "windows/system_dll.h"
#include "windows/utf.h"
#include "windows_name.h"

namespace {

constexpr const wchar_t* kFiles[] = {L"OrvikService.exe", L"orvikctl.exe", L"orvik.dll",
                                     L"crashreporter.exe"};

Json FileJson(const std::filesystem::path& file) {
    Json json = {{"file", ToUtf8(file.wstring())}};
    WIN32_FILE_ATTRIBUTE_DATA attributes{};
    if (!::GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &attributes)) {
        json["unknown"]["file"] = FileError("cannot read the size of", file).what();
        return json;
    }
    AddFact(json, "version", [&] { return VersionOf(file); });
    json["size"] = (std::uint64_t{attributes.nFileSizeHigh} << 32) | attributes.nFileSizeLow;
    json["written"] = TimeOf(attributes.ftLastWriteTime);
    return json;
}

RTL_OSVERSIONINFOEXW Version() {
    // Not GetVersionExW, which gives a program without the right manifest an older version.
    const auto get =
        SystemFunction<LONG(WINAPI*)(RTL_OSVERSIONINFOEXW*)>(L"ntdll.dll", "RtlGetVersion");
    RTL_OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    if (get == nullptr || get(&version) != 0)
        throw SystemFailure("cannot find Windows' version");
    return version;
}

/// Where Windows has facts about its own version.
constexpr wchar_t kVersionKey[] = LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion)";

/// Null if there is none.
Json VersionText(const wchar_t* value) {
    const auto text = FindRegistryText(kVersionKey, value);
    return text ? Json(ToUtf8(*text)) : Json();
}

Json VersionNumber(const wchar_t* value) {
    const auto number = FindRegistryNumber(kVersionKey, value);
    return number ? Json(*number) : Json();
}

}  // namespace

std::string WindowsName(const std::string& product, std::uint32_t build, bool server) {
    constexpr std::string_view kOldName = "Windows 10";
    constexpr std::uint32_t kFirstBuildOfWindows11 = 22000;
    if (server || build < kFirstBuildOfWindows11 || !product.starts_with(kOldName))
        return product;
    return "Windows 11" + product.substr(kOldName.size());
}

void ReportVersions(ReportFolder& folder) {
    Json json = NewJson();
    json["files"] = Json::array();
    std::set<std::filesystem::path> folders{OwnFolder()};
    try {
        folders.insert(ServiceProgram().parent_path());
    } catch (const Failure& failure) {
        json["unknown"]["program"] = failure.what();  // of the service
    }
    for (const std::filesystem::path& from : folders)
        for (const wchar_t* const file : kFiles)
            json["files"].push_back(FileJson(from / file));
    folder.Write("versions.json", json);
}

void ReportWindows(ReportFolder& folder) {
    const RTL_OSVERSIONINFOEXW version = Version();
    Json json = NewJson();
    json["version"] = std::to_string(version.dwMajorVersion) + "." +
                      std::to_string(version.dwMinorVersion) + "." +
                      std::to_string(version.dwBuildNumber);
    json["service_pack"] = ToUtf8(version.szCSDVersion);
    AddFact(json, "update_revision", [] { return VersionNumber(L"UBR"); });
    const bool server = version.wProductType != VER_NT_WORKSTATION;
    json["server"] = server;
    AddFact(json, "name", [&] {
        const Json product = VersionText(L"ProductName");
        return product.is_null() ? product
                                 : Json(WindowsName(product, version.dwBuildNumber, server));
    });
    AddFact(json, "product", [] { return VersionText(L"ProductName"); });
    AddFact(json, "release", [] { return VersionText(L"DisplayVersion"); });
    AddFact(json, "build", [] { return VersionText(L"BuildLabEx"); });
    SYSTEM_INFO system{};
    ::GetNativeSystemInfo(&system);
    json["processor_architecture"] = system.wProcessorArchitecture;  // 9: x64, 12: ARM64
    json["processors"] = system.dwNumberOfProcessors;
    folder.Write("windows.json", json);
}
