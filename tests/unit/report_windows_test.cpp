// The facts about Windows in the report of orvikctl.

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "import_hook.h"
#include "report_parts.h"
#include "support/file_content.h"
#include "windows_name.h"

extern "C" {
extern decltype(&::RegGetValueW) __imp_RegGetValueW;
}

namespace {

namespace fs = std::filesystem;

TEST(WindowsName, IsWindows11FromTheBuild22000On) {
    EXPECT_EQ(WindowsName("Windows 10 Pro", 19045, false), "Windows 10 Pro");
    EXPECT_EQ(WindowsName("Windows 10 Pro", 21999, false), "Windows 10 Pro");
    EXPECT_EQ(WindowsName("Windows 10 Pro", 22000, false), "Windows 11 Pro");
    EXPECT_EQ(WindowsName("Windows 10 Enterprise LTSC 2024", 26100, false),
              "Windows 11 Enterprise LTSC 2024");
    EXPECT_EQ(WindowsName("Windows 10", 26100, false), "Windows 11");
}

TEST(WindowsName, OfServersAndOfOtherNamesIsThatOfTheRegistry) {
    EXPECT_EQ(WindowsName("Windows Server 2025 Standard", 26100, true),
              "Windows Server 2025 Standard");
    EXPECT_EQ(WindowsName("Windows 10 Pro", 26100, true), "Windows 10 Pro");
    EXPECT_EQ(WindowsName("Windows 11 Pro", 26100, false), "Windows 11 Pro");
    EXPECT_EQ(WindowsName("", 26100, false), "");
}

/// windows.json, with a registry whose values the test chooses.
class ReportWindowsTest : public testing::Test {
protected:
    ~ReportWindowsTest() override { fs::remove_all(path); }

    Json Collect() const {
        fs::remove_all(path);
        ReportFolder folder(path);
        ReportWindows(folder);
        const Bytes bytes = ContentOf(path / L"windows.json");
        return Json::parse(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    }

    const fs::path path = fs::temp_directory_path() /
                          (L"report_windows_test." + std::to_wstring(::GetCurrentProcessId()));
    std::optional<DWORD> revision;
    std::optional<std::wstring> product;
    LSTATUS error = ERROR_SUCCESS;
    const HookedImport<&__imp_RegGetValueW> read{[this](HKEY root, const wchar_t* key,
                                                        const wchar_t* value, DWORD flags, DWORD*,
                                                        void* to, DWORD* size) -> LSTATUS {
        EXPECT_EQ(root, HKEY_LOCAL_MACHINE);
        EXPECT_STREQ(key, LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion)");
        if (value == std::wstring(L"UBR") && revision && error == ERROR_SUCCESS) {
            EXPECT_EQ(flags, DWORD{RRF_RT_REG_DWORD});
            EXPECT_EQ(*size, sizeof(DWORD));
            std::memcpy(to, &*revision, sizeof(DWORD));
            return ERROR_SUCCESS;
        }
        if (value == std::wstring(L"ProductName") && product && error == ERROR_SUCCESS) {
            const std::size_t length = (product->size() + 1) * sizeof(wchar_t);
            EXPECT_GE(*size, length);
            std::memcpy(to, product->c_str(), length);
            return ERROR_SUCCESS;
        }
        return error != ERROR_SUCCESS ? error : ERROR_FILE_NOT_FOUND;
    }};
};

TEST_F(ReportWindowsTest, HasTheUpdateRevisionAndBothNames) {
    revision = 4317;
    product = L"Windows 10 Pro";
    const Json json = Collect();
    EXPECT_EQ(json.at("update_revision"), 4317);
    EXPECT_EQ(json.at("product"), "Windows 10 Pro");
    const std::string version = json.at("version");
    const auto build =
        static_cast<std::uint32_t>(std::stoul(version.substr(version.rfind('.') + 1)));
    EXPECT_EQ(json.at("name"), WindowsName("Windows 10 Pro", build, json.at("server")));
}

TEST_F(ReportWindowsTest, MissingRegistryValuesAreNull) {
    const Json json = Collect();
    for (const char* const key : {"update_revision", "name", "product"})
        EXPECT_EQ(json.at(key), nullptr) << key;
    EXPECT_FALSE(json.contains("unknown"));
}

TEST_F(ReportWindowsTest, HasWhyAValueCannotBeRead) {
    error = ERROR_UNSUPPORTED_TYPE;
    const Json json = Collect();
    EXPECT_EQ(json.at("update_revision"), nullptr);
    const std::string why = json.at("unknown").at("update_revision");
    EXPECT_TRUE(why.starts_with(R"(cannot read the registry value HKLM\SOFTWARE\Microsoft\)"
                                R"(Windows NT\CurrentVersion\UBR: )"))
        << why;
    EXPECT_TRUE(json.at("unknown").contains("name"));
}

}  // namespace
