// The file that orvikctl read and raw write.

#include "partial_file.h"

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "import_hook.h"

extern "C" {
extern decltype(&::WriteFile) __imp_WriteFile;
extern decltype(&::FlushFileBuffers) __imp_FlushFileBuffers;
extern decltype(&::MoveFileExW) __imp_MoveFileExW;
}

namespace {

using WriteHook = HookedImport<&__imp_WriteFile>;
using FlushHook = HookedImport<&__imp_FlushFileBuffers>;
using RenameHook = HookedImport<&__imp_MoveFileExW>;

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
    const RenameHook rename([&](const wchar_t* from, const wchar_t* to, DWORD flags) {
        calls += "rename ";
        return RenameHook::Original(from, to, flags);
    });
    PartialFile file(target);
    file.Write(kBytes);
    file.Write(kBytes);
    file.Commit();
    EXPECT_EQ(calls, "write write flush rename ");
    EXPECT_EQ(Content(), std::string(200, 'x'));
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
