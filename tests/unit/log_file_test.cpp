// The log's file, on real files in a folder of the test.
#include "log/log_file.h"

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <ios>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include <io.h>
#include <boost/filesystem/exception.hpp>

#include "import_hook.h"
#include "temporary_profile.h"

extern "C" {
extern decltype(&::_write) __imp_write;
extern decltype(&::MoveFileExW) __imp_MoveFileExW;
}

namespace {

constexpr DWORD kShareAllButDeletion = FILE_SHARE_READ | FILE_SHARE_WRITE;
constexpr std::uintmax_t kLargestKept = 5'242'880;

/// The limit is on the record, not on what the file then has.
std::string Written(std::uint64_t maximumLength, const std::string& record) {
    const TemporaryProfile profile;
    LogFile(profile.Log().native(), maximumLength).Write(record);
    return FileText(profile.Log());
}

TEST(LogFile, RecordOfTheMaximumLengthIsWrittenWhole) {
    const std::string record = std::string(4095, 'a') + '\n';
    EXPECT_EQ(Written(4096, record), record);
}

TEST(LogFile, LongerRecordIsCutAndSaysSo) {
    EXPECT_EQ(Written(4096, std::string(4096, 'a') + '\n'), std::string(4096, 'a') + "...\n");
    EXPECT_EQ(Written(4096, std::string(1'000'000, 'a')), std::string(4096, 'a') + "...\n");
    EXPECT_EQ(Written(1, "ab"), "a...\n");
}

TEST(LogFile, MaximumOfZeroIsNone) {
    const std::string record(1'000'000, 'a');
    EXPECT_EQ(Written(0, record), record);
    EXPECT_EQ(Written(0, ""), "");
}

TEST(LogFile, LineEndsInTheFileAreThoseOfWindows) {
    const TemporaryProfile profile;
    LogFile file(profile.Log().native(), 4);
    file.Write("a\nb\n");
    file.Write("abcde");
    EXPECT_EQ(FileBytes(profile.Log()), "a\r\nb\r\nabcd...\r\n");
}

TEST(LogFile, NothingIsMadeBeforeTheFirstRecord) {
    const TemporaryProfile profile;
    LogFile file(profile.Log().native(), 0);
    EXPECT_TRUE(std::filesystem::is_empty(profile.Folder()));
    file.Close();
    EXPECT_TRUE(std::filesystem::is_empty(profile.Folder()));
    file.Write("first\n");  // makes the folder and two parents
    EXPECT_EQ(FileText(profile.Log()), "first\n");
}

TEST(LogFile, EachRecordIsInTheFileWhenWriteReturns) {
    const TemporaryProfile profile;
    LogFile file(profile.Log().native(), 0);
    std::string all;
    for (const char* const record : {"1\n", "2\n", "3"}) {
        file.Write(record);
        all += record;
        EXPECT_EQ(FileText(profile.Log()), all);
    }
}

TEST(LogFile, RecordsAreAppendedToWhatIsThere) {
    const TemporaryProfile profile;
    MakeFile(profile.Log(), 7, "older\r\n");
    LogFile(profile.Log().native(), 0).Write("newer\n");
    EXPECT_EQ(FileText(profile.Log()), "older\nnewer\n");
}

TEST(LogFile, NameAndFolderMayHaveAnyCharacters) {
    const TemporaryProfile profile;
    const std::filesystem::path path = profile.Folder() / L"\u65e5 \u00e4" / L"\u672c %s.txt";
    LogFile(path.native(), 0).Write("found\n");
    EXPECT_EQ(FileText(path), "found\n");
}

TEST(LogFile, OthersMayHaveTheFileOpenForReadingAndWriting) {
    const TemporaryProfile profile;
    MakeFile(profile.Log());
    const UniqueHandle before = HoldOpen(profile.Log(), kShareAllButDeletion);
    ASSERT_TRUE(before);
    LogFile file(profile.Log().native(), 0);
    ASSERT_NO_THROW(file.Write("a\n"));
    const UniqueHandle afterwards = HoldOpen(profile.Log(), kShareAllButDeletion);
    EXPECT_TRUE(afterwards);
    LogFile(profile.Log().native(), 0).Write("b\n");
    file.Write("c\n");
    EXPECT_EQ(FileText(profile.Log()), "a\nb\nc\n");
}

TEST(LogFile, FileThatCannotBeOpenedIsTriedAgainByTheNextRecord) {
    const TemporaryProfile profile;
    MakeFile(profile.Log());
    UniqueHandle exclusive = HoldOpen(profile.Log(), 0);
    ASSERT_TRUE(exclusive);
    LogFile file(profile.Log().native(), 0);
    EXPECT_THROW(file.Write("lost\n"), std::ios_base::failure);
    EXPECT_THROW(file.Write("lost too\n"), std::ios_base::failure);
    EXPECT_NO_THROW(file.Close());
    exclusive.reset();
    EXPECT_NO_THROW(file.Write("found\n"));
    EXPECT_EQ(FileText(profile.Log()), "found\n");
}

TEST(LogFile, FolderThatCannotBeMadeIsTriedAgainByTheNextRecord) {
    const TemporaryProfile profile;
    MakeFile(profile.Folder() / "AppData");
    LogFile file(profile.Log().native(), 0);
    EXPECT_THROW(file.Write("lost\n"), boost::filesystem::filesystem_error);
    std::filesystem::remove(profile.Folder() / "AppData");
    EXPECT_NO_THROW(file.Write("found\n"));
    EXPECT_EQ(FileText(profile.Log()), "found\n");
}

TEST(LogFile, ReadOnlyFileThrows) {
    const TemporaryProfile profile;
    MakeFile(profile.Log());
    ::SetFileAttributesW(profile.Log().c_str(), FILE_ATTRIBUTE_READONLY);
    if (HoldOpen(profile.Log(), kShareAllButDeletion))
        GTEST_SKIP() << "root writes to any file under Wine";
    LogFile file(profile.Log().native(), 0);
    EXPECT_THROW(file.Write("lost\n"), std::ios_base::failure);
    ::SetFileAttributesW(profile.Log().c_str(), FILE_ATTRIBUTE_NORMAL);
    EXPECT_EQ(FileText(profile.Log()), "");
}

TEST(LogFile, PathOfAFolderThrows) {
    const TemporaryProfile profile;
    std::filesystem::create_directories(profile.Log());
    LogFile file(profile.Log().native(), 0);
    EXPECT_THROW(file.Write("lost\n"), std::ios_base::failure);
}

TEST(LogFile, ClosedFileCanBeMovedAwayAndTheNextRecordMakesANewOne) {
    const TemporaryProfile profile;
    LogFile file(profile.Log().native(), 0);
    file.Write("old\n");
    file.Close();
    file.Close();
    std::filesystem::rename(profile.Log(), profile.OldLog());
    file.Write("new\n");
    EXPECT_EQ(FileText(profile.OldLog()), "old\n");
    EXPECT_EQ(FileText(profile.Log()), "new\n");
}

TEST(LogFile, DestructionClosesTheFile) {
    const TemporaryProfile profile;
    LogFile(profile.Log().native(), 0).Write("a\n");
    EXPECT_TRUE(HoldOpen(profile.Log(), 0));
}

TEST(LogFile, FailedWriteThrowsUntilTheFileIsClosed) {
    const TemporaryProfile profile;
    LogFile file(profile.Log().native(), 0);
    file.Write("a\n");
    {
        // As the C runtime reports a full disk.
        const ImportHook<decltype(&::_write)> full(&__imp_write,
                                                   [](int, const void*, unsigned) noexcept {
                                                       errno = ENOSPC;
                                                       return -1;
                                                   });
        EXPECT_THROW(file.Write("lost\n"), std::ios_base::failure);
    }
    EXPECT_THROW(file.Write("lost too\n"), std::ios_base::failure);
    EXPECT_EQ(FileText(profile.Log()), "a\n");
    EXPECT_NO_THROW(file.Close());
    EXPECT_NO_THROW(file.Write("b\n"));
    EXPECT_TRUE(FileText(profile.Log()).ends_with("b\n"));
}

TEST(LogFile, FullDiskThrows) {
    // Wine shows the host's device that is always full.
    constexpr wchar_t kFull[] = LR"(\\?\unix\dev\full)";
    if (!HoldOpen(kFull, kShareAllButDeletion))
        GTEST_SKIP() << "no disk that is full";
    LogFile file(kFull, 0);
    EXPECT_THROW(file.Write("lost\n"), std::ios_base::failure);
}

TEST(LogFolder, LiesBelowTheProfileOfTheUser) {
    const EnvironmentVariable profile(L"USERPROFILE", LR"(C:\users\tester)");
    EXPECT_EQ(LogFolder().native(), LR"(C:\users\tester/AppData/Local/Orvik)");
}

TEST(LogFolder, LiesBelowTheRootWithoutAProfile) {
    const EnvironmentVariable profile(L"USERPROFILE", nullptr);
    EXPECT_EQ(LogFolder().native(), L"/AppData/Local/Orvik");
}

TEST(LogFolder, ProfileMayBeLongAndHaveAnyCharacters) {
    const std::wstring folder = LR"(C:\)" + std::wstring(1000, L'\u65e5');
    const EnvironmentVariable profile(L"USERPROFILE", folder.c_str());
    EXPECT_EQ(LogFolder().native(), folder + L"/AppData/Local/Orvik");
}

TEST(LogPath, NameGetsItsExtensionBehindASeparator) {
    EXPECT_EQ(LogPath("C:/folder", "log").native(), LR"(C:/folder\log.txt)");
    EXPECT_EQ(LogPath("C:/folder", "log.old").native(), LR"(C:/folder\log.old.txt)");
}

void Rotate(const TemporaryProfile& profile) {
    RotateLogFiles(profile.LogFolder().native(), "log");
}

TEST(RotateLogFiles, FileOfFiveMebibytesIsKept) {
    const TemporaryProfile profile;
    MakeFile(profile.Log(), kLargestKept);
    Rotate(profile);
    EXPECT_EQ(std::filesystem::file_size(profile.Log()), kLargestKept);
    EXPECT_FALSE(std::filesystem::exists(profile.OldLog()));
}

TEST(RotateLogFiles, LargerFileBecomesTheOldOne) {
    const TemporaryProfile profile;
    MakeFile(profile.Log(), kLargestKept + 1, "log");
    Rotate(profile);
    EXPECT_FALSE(std::filesystem::exists(profile.Log()));
    EXPECT_EQ(FileBytes(profile.OldLog()).substr(0, 3), "log");
    EXPECT_EQ(std::filesystem::file_size(profile.OldLog()), kLargestKept + 1);
}

TEST(RotateLogFiles, LargerFileReplacesAnOlderOne) {
    const TemporaryProfile profile;
    MakeFile(profile.OldLog(), kLargestKept + 100, "old");
    MakeFile(profile.Log(), kLargestKept + 1, "new");
    Rotate(profile);
    EXPECT_FALSE(std::filesystem::exists(profile.Log()));
    EXPECT_EQ(FileBytes(profile.OldLog()).substr(0, 3), "new");
    EXPECT_EQ(std::filesystem::file_size(profile.OldLog()), kLargestKept + 1);
}

TEST(RotateLogFiles, NothingHappensWithoutALog) {
    const TemporaryProfile profile;
    EXPECT_NO_THROW(Rotate(profile));  // no folder either
    EXPECT_TRUE(std::filesystem::is_empty(profile.Folder()));
    MakeFile(profile.OldLog(), kLargestKept + 1);
    EXPECT_NO_THROW(Rotate(profile));
    EXPECT_TRUE(std::filesystem::exists(profile.OldLog()));
}

TEST(RotateLogFiles, OldFileThatIsHeldOpenThrowsAndBothStay) {
    const TemporaryProfile profile;
    MakeFile(profile.OldLog(), 3, "old");
    MakeFile(profile.Log(), kLargestKept + 1);
    {
        const UniqueHandle holder = HoldOpen(profile.OldLog(), kShareAllButDeletion);
        ASSERT_TRUE(holder);
        EXPECT_THROW(Rotate(profile), boost::filesystem::filesystem_error);
    }
    EXPECT_EQ(FileBytes(profile.OldLog()), "old");
    EXPECT_EQ(std::filesystem::file_size(profile.Log()), kLargestKept + 1);
    EXPECT_NO_THROW(Rotate(profile));
    EXPECT_FALSE(std::filesystem::exists(profile.Log()));
}

TEST(RotateLogFiles, LogThatIsHeldOpenThrowsWhenTheOldOneIsGone) {
    const TemporaryProfile profile;
    MakeFile(profile.OldLog());
    MakeFile(profile.Log(), kLargestKept + 1);
    {
        const UniqueHandle holder = HoldOpen(profile.Log(), kShareAllButDeletion);
        ASSERT_TRUE(holder);
        EXPECT_THROW(Rotate(profile), boost::filesystem::filesystem_error);
    }
    EXPECT_FALSE(std::filesystem::exists(profile.OldLog()));
    EXPECT_TRUE(std::filesystem::exists(profile.Log()));
}

TEST(RotateLogFiles, FolderThatMayNotBeChangedThrowsAndTheLogStays) {
    const TemporaryProfile profile;
    MakeFile(profile.Log(), kLargestKept + 1);
    {
        const ImportHook<decltype(&::MoveFileExW)> denied(
            &__imp_MoveFileExW, [](const wchar_t*, const wchar_t*, DWORD) -> BOOL {
                ::SetLastError(ERROR_ACCESS_DENIED);
                return FALSE;
            });
        EXPECT_THROW(Rotate(profile), boost::filesystem::filesystem_error);
    }
    EXPECT_EQ(std::filesystem::file_size(profile.Log()), kLargestKept + 1);
    EXPECT_FALSE(std::filesystem::exists(profile.OldLog()));
}

TEST(RotateLogFiles, OldLogThatIsAFolderWithFilesThrows) {
    const TemporaryProfile profile;
    MakeFile(profile.OldLog() / "file");
    MakeFile(profile.Log(), kLargestKept + 1);
    EXPECT_THROW(Rotate(profile), boost::filesystem::filesystem_error);
    EXPECT_TRUE(std::filesystem::exists(profile.Log()));
}

TEST(RotateLogFiles, ReadOnlyFilesAreRotatedToo) {
    const TemporaryProfile profile;
    MakeFile(profile.OldLog(), 3, "old");
    MakeFile(profile.Log(), kLargestKept + 1, "new");
    ::SetFileAttributesW(profile.OldLog().c_str(), FILE_ATTRIBUTE_READONLY);
    ::SetFileAttributesW(profile.Log().c_str(), FILE_ATTRIBUTE_READONLY);
    EXPECT_NO_THROW(Rotate(profile));
    EXPECT_FALSE(std::filesystem::exists(profile.Log()));
    EXPECT_EQ(FileBytes(profile.OldLog()).substr(0, 3), "new");
    ::SetFileAttributesW(profile.OldLog().c_str(), FILE_ATTRIBUTE_NORMAL);
}

}  // namespace
