// DLLs that somebody has put beside the programs, under the names of system DLLs.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {
namespace {

/// Those that the programs use and that are no known DLLs. Not version.dll, which Wine's own
/// shell32.dll imports.
constexpr const wchar_t* kDlls[] = {L"dbghelp.dll", L"userenv.dll", L"wevtapi.dll",
                                    L"wtsapi32.dll"};

constexpr wchar_t kWinePrograms[] = LR"(Software\Wine\AppDefaults)";

/// Has the planted DLLs in a folder for a program.
class ProgramAmongPlantedDlls : public SystemTest {
protected:
    ProgramAmongPlantedDlls()
        : folder(std::filesystem::path(TestFolder()) / L"planted_dll_test.files") {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        for (const wchar_t* const dll : kDlls)
            std::filesystem::copy_file(TestFolder() + L"\\planted_dll.dll", folder / dll);
    }
    ~ProgramAmongPlantedDlls() override {
        ::RegDeleteTreeW(HKEY_CURRENT_USER, WineKey().c_str());
        std::filesystem::remove_all(folder);
    }

    /// Copies a program there; its new path.
    std::wstring Copy(const wchar_t* program) {
        name = program;
        std::filesystem::copy_file(ProgramPath(program), folder / name);
        // Wine prefers its own DLLs to others of the same names, unless it is told otherwise.
        for (const wchar_t* const dll : kDlls) {
            const std::wstring dllName = std::filesystem::path(dll).stem().wstring();
            const std::wstring order = L"native,builtin";
            ::RegSetKeyValueW(HKEY_CURRENT_USER, (WineKey() + L"\\DllOverrides").c_str(),
                              dllName.c_str(), REG_SZ, order.c_str(),
                              static_cast<DWORD>((order.size() + 1) * sizeof(wchar_t)));
        }
        return (folder / name).wstring();
    }

    std::vector<std::wstring> Loaded() const {
        std::vector<std::wstring> names;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            if (entry.path().extension() == L".loaded")
                names.push_back(entry.path().stem().wstring());
        return names;
    }

private:
    std::wstring WineKey() const { return std::wstring(kWinePrograms) + L"\\" + name; }

    const std::filesystem::path folder;
    std::wstring name;
};

TEST_F(ProgramAmongPlantedDlls, ServiceLoadsNone) {
    // Before it reports RUNNING, it has installed its crash handler, which uses dbghelp.dll, and
    // has started the desktop application for this camera.
    const PluggedCamera camera(bus);
    const RunningService service(RunMode::kServiceManager, Copy(L"OrvikService.exe"));
    EXPECT_EQ(Loaded(), std::vector<std::wstring>());
}

TEST_F(ProgramAmongPlantedDlls, OrvikctlLoadsNone) {
    const RunningService service(RunMode::kServiceManager);
    // This command uses the most DLLs, also those of `status`.
    const std::wstring program = Copy(L"orvikctl.exe");
    Program orvikctl(program, L"report -o \"" + program + L".report\"");
    EXPECT_EQ(orvikctl.WaitForEnd(), 0u) << orvikctl.Errors().Text();
    EXPECT_EQ(Loaded(), std::vector<std::wstring>());
}

}  // namespace
}  // namespace system_test
