// The programs that ship, as files: what the loader and the system's settings see of them.

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

namespace {

/// `bin` stands beside the folder of this test.
std::filesystem::path PathOf(const std::string& name) {
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    return std::filesystem::path(self).parent_path().parent_path() / "bin" / name;
}

/// A 64-bit PE file as it lies on the disk.
class Image {
public:
    explicit Image(const std::filesystem::path& path) {
        std::ifstream file(path, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), {});
    }

    bool IsValid() const {
        return bytes.size() > sizeof(IMAGE_DOS_HEADER) &&
               Headers().Signature == IMAGE_NT_SIGNATURE &&
               Headers().OptionalHeader.Magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC;
    }

    const IMAGE_NT_HEADERS64& Headers() const {
        return At<IMAGE_NT_HEADERS64>(static_cast<std::size_t>(At<IMAGE_DOS_HEADER>(0).e_lfanew));
    }

    /// Names of the imported DLLs, in lower case.
    std::set<std::string> Imports() const {
        std::set<std::string> names;
        const auto& directory =
            Headers().OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
        for (std::size_t at = Offset(directory.VirtualAddress);;
             at += sizeof(IMAGE_IMPORT_DESCRIPTOR)) {
            const auto& entry = At<IMAGE_IMPORT_DESCRIPTOR>(at);
            if (entry.Name == 0)
                return names;
            std::string name = &At<char>(Offset(entry.Name));
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            names.insert(name);
        }
    }

private:
    template <class T>
    const T& At(std::size_t offset) const {
        return *reinterpret_cast<const T*>(&bytes.at(offset));
    }

    /// Where in the file the address is that the loader would map.
    std::size_t Offset(DWORD address) const {
        const auto* section = IMAGE_FIRST_SECTION(&Headers());
        for (int left = Headers().FileHeader.NumberOfSections; left > 0; --left, ++section) {
            if (address >= section->VirtualAddress &&
                address < section->VirtualAddress + section->Misc.VirtualSize)
                return address - section->VirtualAddress + section->PointerToRawData;
        }
        throw std::out_of_range("address in no section");
    }

    std::vector<char> bytes;
};

/// The programs and the DLL.
class ShippedFiles : public testing::TestWithParam<const char*> {
protected:
    const Image image{PathOf(GetParam())};
};

class ShippedPrograms : public ShippedFiles {};

// Windows takes these from System32, whatever is beside the program: known DLLs of Windows 10 (the
// registry key KnownDLLs), and API sets, whose names ("api-ms-win-...") are no files. Others are
// loaded after main() has begun (windows/system_dll.h).
TEST_P(ShippedFiles, ImportOnlyDllsThatAlwaysComeFromTheSystemFolder) {
    ASSERT_TRUE(image.IsValid()) << PathOf(GetParam());
    const std::set<std::string> known = {"advapi32.dll", "kernel32.dll", "msvcrt.dll",
                                         "ole32.dll",    "rpcrt4.dll",   "setupapi.dll",
                                         "shell32.dll",  "shlwapi.dll",  "user32.dll"};
    const std::set<std::string> imports = image.Imports();
    EXPECT_TRUE(imports.contains("kernel32.dll"));
    for (const std::string& name : imports)
        EXPECT_TRUE(known.contains(name) || name.starts_with("api-ms-win-")) << name;
}

TEST_P(ShippedFiles, AreHardened) {
    ASSERT_TRUE(image.IsValid()) << PathOf(GetParam());
    const WORD bits = image.Headers().OptionalHeader.DllCharacteristics;
    EXPECT_TRUE(bits & IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE);
    EXPECT_TRUE(bits & IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA);
    EXPECT_TRUE(bits & IMAGE_DLLCHARACTERISTICS_NX_COMPAT);
    // Without its relocations an image can't be moved, whatever the bits say.
    EXPECT_FALSE(image.Headers().FileHeader.Characteristics & IMAGE_FILE_RELOCS_STRIPPED);
    EXPECT_NE(image.Headers().OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_BASERELOC].Size,
              0u);
}

TEST_P(ShippedFiles, TellTheirVersion) {
    const std::wstring path = PathOf(GetParam()).wstring();
    std::vector<std::byte> block(::GetFileVersionInfoSizeW(path.c_str(), nullptr));
    ASSERT_FALSE(block.empty()) << path;
    ASSERT_TRUE(
        ::GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(block.size()), block.data()));

    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT size = 0;
    ASSERT_TRUE(::VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &size));
    const std::string version = std::to_string(HIWORD(fixed->dwFileVersionMS)) + "." +
                                std::to_string(LOWORD(fixed->dwFileVersionMS)) + "." +
                                std::to_string(HIWORD(fixed->dwFileVersionLS));
    EXPECT_EQ(version, ORVIK_VERSION);
    EXPECT_EQ(version, "4.0.4");

    wchar_t* text = nullptr;
    ASSERT_TRUE(::VerQueryValueW(block.data(), L"\\StringFileInfo\\040904B0\\ProductVersion",
                                 reinterpret_cast<void**>(&text), &size));
    EXPECT_STREQ(text, L"4.0.4");
}

TEST_P(ShippedPrograms, HaveAManifestForUtf8AndLongPaths) {
    const std::wstring path = PathOf(GetParam()).wstring();
    const HMODULE module =
        ::LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE_EXCLUSIVE);
    ASSERT_NE(module, nullptr) << path;
    const HRSRC resource =
        ::FindResourceW(module, MAKEINTRESOURCEW(1), MAKEINTRESOURCEW(24));  // RT_MANIFEST
    ASSERT_NE(resource, nullptr);
    const std::string manifest(
        static_cast<const char*>(::LockResource(::LoadResource(module, resource))),
        ::SizeofResource(module, resource));
    EXPECT_NE(manifest.find(">UTF-8</activeCodePage>"), std::string::npos) << manifest;
    EXPECT_NE(manifest.find(">true</longPathAware>"), std::string::npos) << manifest;
    EXPECT_NE(manifest.find("level=\"asInvoker\""), std::string::npos) << manifest;
    ::FreeLibrary(module);
}

std::string NameWithoutExtension(const testing::TestParamInfo<const char*>& program) {
    return std::filesystem::path(program.param).stem().string();
}

INSTANTIATE_TEST_SUITE_P(Programs, ShippedFiles, testing::Values(SHIPPED_PROGRAMS),
                         NameWithoutExtension);
INSTANTIATE_TEST_SUITE_P(Dll, ShippedFiles, testing::Values("orvik.dll"), NameWithoutExtension);
INSTANTIATE_TEST_SUITE_P(All, ShippedPrograms, testing::Values(SHIPPED_PROGRAMS),
                         NameWithoutExtension);

}  // namespace
