// The file that orvikctl read and raw write.

#include "partial_file.h"

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cancellation.h"
#include "import_hook.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::WriteFile) __imp_WriteFile;
extern decltype(&::FlushFileBuffers) __imp_FlushFileBuffers;
extern decltype(&::GetDiskFreeSpaceExW) __imp_GetDiskFreeSpaceExW;
extern decltype(&::SetFileInformationByHandle) __imp_SetFileInformationByHandle;
}

namespace {

using WriteHook = HookedImport<&__imp_WriteFile>;
using FlushHook = HookedImport<&__imp_FlushFileBuffers>;
using SpaceHook = HookedImport<&__imp_GetDiskFreeSpaceExW>;
using ChangeHook = HookedImport<&__imp_SetFileInformationByHandle>;

const std::vector<std::byte> kBytes(100, std::byte{'x'});

/// Begins with an empty folder and a target with the content "old".
class PartialFileTest : public testing::Test {
protected:
    PartialFileTest()
        : folder(std::filesystem::temp_directory_path() /
                 (L"partial_file_test." + std::to_wstring(::GetCurrentProcessId()))),
          target(folder / L"target") {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
        std::ofstream(target) << "old";
    }
    ~PartialFileTest() override { std::filesystem::remove_all(folder); }

    std::string Content() const {
        std::ifstream stream(target, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    auto FileCount() const {
        return std::distance(std::filesystem::directory_iterator(folder), {});
    }

    const std::filesystem::path folder;
    const std::filesystem::path target;
};

TEST_F(PartialFileTest, IsFlushedAfterTheLastWriteAndBeforeTheRename) {
    std::string calls;
    const WriteHook write(
        [&](HANDLE file, const void* bytes, DWORD length, DWORD* written, OVERLAPPED* overlapped) {
            calls += "write ";
            return WriteHook::Original(file, bytes, length, written, overlapped);
        });
    const FlushHook flush([&](HANDLE file) {
        calls += "flush ";
        return FlushHook::Original(file);
    });
    const ChangeHook rename(
        [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, void* record, DWORD size) {
            calls += kind == FileRenameInfo ? "rename " : "other ";
            return ChangeHook::Original(file, kind, record, size);
        });
    PartialFile file(target);
    file.Write(kBytes);
    file.Write(kBytes);
    file.Commit();
    EXPECT_EQ(calls, "write write flush rename ");
    EXPECT_EQ(Content(), std::string(200, 'x'));
    EXPECT_EQ(FileCount(), 1);
}

/// A virus scanner opens a file as soon as it can, and a file that is open cannot be renamed.
TEST_F(PartialFileTest, NoOtherProgramCanOpenItBeforeItHasItsName) {
    int renames = 0;
    const ChangeHook rename(
        [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, void* record, DWORD size) {
            ++renames;
            for (const auto& entry : std::filesystem::directory_iterator(folder)) {
                if (entry.path() == target)
                    continue;
                const UniqueHandle scanner =
                    OwnFile(::CreateFileW(entry.path().c_str(), GENERIC_READ,
                                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                          nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
                EXPECT_EQ(::GetLastError(), DWORD{ERROR_SHARING_VIOLATION});
                EXPECT_FALSE(scanner);
            }
            return ChangeHook::Original(file, kind, record, size);
        });
    PartialFile file(target);
    file.Write(kBytes);
    file.Commit();
    EXPECT_EQ(renames, 1);
    EXPECT_EQ(Content(), std::string(100, 'x'));
}

TEST_F(PartialFileTest, RenameIsTriedAgainOnlyWhileAFileIsInUse) {
    CatchCancellation();
    std::vector<DWORD> codes;  // of the next tries, last one first
    const ChangeHook rename(
        [&](HANDLE file, FILE_INFO_BY_HANDLE_CLASS kind, void* record, DWORD size) {
            if (codes.empty())
                return ChangeHook::Original(file, kind, record, size);
            ::SetLastError(codes.back());
            codes.pop_back();
            return FALSE;
        });
    {
        codes = {ERROR_USER_MAPPED_FILE, ERROR_LOCK_VIOLATION, ERROR_SHARING_VIOLATION,
                 ERROR_ACCESS_DENIED};
        PartialFile file(target);
        file.Write(kBytes);
        file.Commit();
        EXPECT_TRUE(codes.empty());
        EXPECT_EQ(Content(), std::string(100, 'x'));
    }
    EXPECT_EQ(FileCount(), 1);
    {
        codes = {ERROR_NOT_ENOUGH_MEMORY, ERROR_DISK_FULL};
        PartialFile file(target);
        EXPECT_THROW(file.Commit(), FileError);
        EXPECT_EQ(codes.size(), 1u);
    }
    EXPECT_EQ(FileCount(), 2);  // the complete file is not lost
}

TEST_F(PartialFileTest, CtrlCEndsTheTriesAndCostsNoData) {
    CatchCancellation();
    ::SetEvent(CancellationEvent());
    int renames = 0;
    const ChangeHook rename([&](HANDLE, FILE_INFO_BY_HANDLE_CLASS, void*, DWORD) {
        ++renames;
        ::SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    });
    {
        PartialFile file(target);
        EXPECT_THROW(file.Commit(), FileError);
    }
    EXPECT_EQ(renames, 1);
    EXPECT_EQ(FileCount(), 2);
}

TEST_F(PartialFileTest, SpaceOfTheDiskIsComparedToTheByte) {
    constexpr std::uint64_t kFree = 1'000;
    const SpaceHook space(
        [this](const wchar_t* name, ULARGE_INTEGER* available, ULARGE_INTEGER*, ULARGE_INTEGER*) {
            EXPECT_EQ(std::filesystem::path(name), folder / L"");
            available->QuadPart = kFree;
            return TRUE;
        });
    const PartialFile file(target);
    EXPECT_NO_THROW(file.RequireSpace(kFree));
    EXPECT_THROW(file.RequireSpace(kFree + 1), FileError);
}

TEST_F(PartialFileTest, DiskThatDoesNotSayItsSpaceIsTried) {
    const SpaceHook space(
        [](const wchar_t*, ULARGE_INTEGER*, ULARGE_INTEGER*, ULARGE_INTEGER*) { return FALSE; });
    EXPECT_NO_THROW(PartialFile(target).RequireSpace(1));
}

TEST_F(PartialFileTest, FailedWriteLeavesTheOldFileAlone) {
    const WriteHook write([](HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) {
        ::SetLastError(ERROR_DISK_FULL);
        return FALSE;
    });
    {
        PartialFile file(target);
        EXPECT_THROW(file.Write(kBytes), FileError);
    }
    EXPECT_EQ(Content(), "old");
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(PartialFileTest, FailedFlushLeavesTheOldFileAlone) {
    const FlushHook flush([](HANDLE) {
        ::SetLastError(ERROR_DISK_FULL);
        return FALSE;
    });
    {
        PartialFile file(target);
        file.Write(kBytes);
        EXPECT_THROW(file.Commit(), FileError);
    }
    EXPECT_EQ(Content(), "old");
    EXPECT_EQ(FileCount(), 1);
}

}  // namespace
