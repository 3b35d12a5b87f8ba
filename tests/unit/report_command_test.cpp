// The folder of orvikctl report: who has access to it, and when it is removed again.

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "application.h"
#include "cancellation.h"
#include "exit_code.h"
#include "import_hook.h"
#include "report_folder.h"
#include "support/file_content.h"
#include "windows/utf.h"

extern "C" {
extern decltype(&::WriteFile) __imp_WriteFile;
}

namespace {

namespace fs = std::filesystem;
using WriteHook = HookedImport<&__imp_WriteFile>;

/// The folder does not exist yet.
class ReportCommand : public testing::Test {
protected:
    ReportCommand()
        : folder(fs::temp_directory_path() /
                 (L"report_command_test." + std::to_wstring(::GetCurrentProcessId()))) {
        CatchCancellation();
        fs::remove_all(folder);
    }
    ~ReportCommand() override {
        CatchCancellation();  // a new event
        fs::remove_all(folder);
    }

    /// The exit code.
    ExitCode Report() const {
        Settings settings;
        const auto app = NewApplication(settings);
        try {
            ::Run(*app, settings, {ToUtf8(folder.wstring()), "-o", "report"});
            return ExitCode::kSuccess;
        } catch (const Failure& failure) {
            return failure.Code();
        }
    }

    std::string TextOf(const wchar_t* file) const {
        const Bytes bytes = ContentOf(folder / file);
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }

    const fs::path folder;
};

/// Fails every write of a text that starts with `start` after its first byte, as on a full disk.
auto FullDisk(std::string_view start) {
    return [start](HANDLE file, const void* bytes, DWORD length, DWORD* written,
                   OVERLAPPED* overlapped) {
        if (!std::string_view(static_cast<const char*>(bytes), length).starts_with(start))
            return WriteHook::Original(file, bytes, length, written, overlapped);
        WriteHook::Original(file, bytes, 1, written, overlapped);
        ::SetLastError(ERROR_DISK_FULL);
        return FALSE;
    };
}

TEST_F(ReportCommand, KeepsWhatWasCollectedIfTheListCannotBeWritten) {
    const WriteHook write(FullDisk("Made by orvikctl "));
    testing::internal::CaptureStdout();
    EXPECT_EQ(Report(), ExitCode::kFailure);
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(fs::exists(folder / L"status.json"));
    EXPECT_TRUE(fs::exists(folder / L"leftovers.json"));
    EXPECT_FALSE(fs::exists(folder / L"report.txt"));
}

TEST_F(ReportCommand, RemovesWhatItMadeAndNothingElseOnCtrlC) {
    bool other = false;  // a file of another program is there too
    std::size_t writes = 0;
    const WriteHook write(
        [&](HANDLE file, const void* bytes, DWORD length, DWORD* written, OVERLAPPED* overlapped) {
            if (++writes == 2) {
                ::SetEvent(CancellationEvent());
                if (other)
                    std::ofstream(folder / L"other") << "x";
            }
            return WriteHook::Original(file, bytes, length, written, overlapped);
        });
    EXPECT_EQ(Report(), ExitCode::kCancelled);
    EXPECT_FALSE(fs::exists(folder));

    CatchCancellation();
    other = true;
    writes = 0;
    EXPECT_EQ(Report(), ExitCode::kCancelled);
    ASSERT_TRUE(fs::exists(folder / L"other"));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 1);
}

TEST_F(ReportCommand, FolderIsForItsUserAndAdministratorsOnly) {
    ReportFolder report(folder);
    std::vector<std::byte> descriptor(64 * 1024);
    DWORD size = 0;
    ASSERT_TRUE(::GetFileSecurityW(folder.c_str(), DACL_SECURITY_INFORMATION, descriptor.data(),
                                   static_cast<DWORD>(descriptor.size()), &size));
    BOOL present = FALSE;
    BOOL byDefault = FALSE;
    ACL* list = nullptr;
    ASSERT_TRUE(::GetSecurityDescriptorDacl(descriptor.data(), &present, &list, &byDefault));
    ASSERT_TRUE(present != FALSE && list != nullptr);
    EXPECT_GT(list->AceCount, 0);
    for (DWORD i = 0; i < list->AceCount; ++i) {
        void* entry = nullptr;
        ASSERT_TRUE(::GetAce(list, i, &entry));
        PSID const sid = &static_cast<ACCESS_ALLOWED_ACE*>(entry)->SidStart;
        for (const WELL_KNOWN_SID_TYPE others :
             {WinWorldSid, WinBuiltinUsersSid, WinAuthenticatedUserSid, WinCreatorOwnerSid})
            EXPECT_FALSE(::IsWellKnownSid(sid, others)) << others;
    }
}

TEST_F(ReportCommand, FilesOfJsonAreInAscii) {
    ReportFolder report(folder);
    report.Write("x.json", Json{{"key", "\xC3\xA4"}});
    EXPECT_EQ(TextOf(L"x.json"), "{\n  \"key\": \"\\u00e4\"\n}\n");
}

}  // namespace
