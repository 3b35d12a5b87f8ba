// The file of the log: many writers, rotation, and a file that cannot be written.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "log_system_fixture.h"

namespace {

constexpr std::uintmax_t kRotated = 5'242'881;

/// Checks that these are the records of "many", whole, and in order for each thread.
void ExpectMany(const std::string& records, std::size_t threads, std::size_t count,
                std::size_t longest) {
    std::vector<std::size_t> next(threads, 0);
    const std::string filling(longest, 'x');
    std::string_view rest = records;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        unsigned thread = 0;
        unsigned number = 0;
        int head = 0;  // characters in front of the filling
        ASSERT_EQ(
            std::sscanf(line.data(), "[%*d][ERROR][many]:\t%u %u|%n", &thread, &number, &head), 2)
            << line;
        ASSERT_TRUE(thread < threads && number == next[thread]) << line;
        ++next[thread];
        ASSERT_EQ(line.substr(static_cast<std::size_t>(head)),
                  std::string_view(filling).substr(0, number % (longest + 1)));
        ASSERT_LT(line.size(), rest.size());  // there is a line end
        rest.remove_prefix(line.size() + 1);
    }
    EXPECT_EQ(next, std::vector<std::size_t>(threads, count));
}

TEST_F(LogSystemTest, RecordsOfManyThreadsAreWholeAndInTheirOrder) {
    const std::string output = Writer(OutputFile(), {Command("many", 8, 10'000, 70)}).Finish();
    ExpectMany(output, 8, 10'000, 70);
    ExpectMany(FileText(profile.Log()), 8, 10'000, 70);
}

TEST_F(LogSystemTest, LongRecordsOfManyThreadsAreWhole) {
    const std::string output = Writer(OutputFile(), {Command("many", 8, 500, 4000)}).Finish();
    ExpectMany(output, 8, 500, 4000);
    ExpectMany(FileText(profile.Log()), 8, 500, 4000);
}

TEST_F(LogSystemTest, TwoProcessesWriteTheFileInTurn) {
    Writer one(OutputFile(),
               {Error("one", "1"), "meet", Error("one", "3"), "meet", Error("one", "5")});
    ASSERT_NO_FATAL_FAILURE(one.Meet());
    Writer two(profile.Folder() / "two.txt", {Error("two", "2"), "meet", Error("two", "4")});
    ASSERT_NO_FATAL_FAILURE(two.Meet());
    one.GoOn();
    ASSERT_NO_FATAL_FAILURE(one.Meet());
    two.GoOn();
    EXPECT_EQ(WithoutTimes(two.Finish()), "[ERROR][two]:\t2\n[ERROR][two]:\t4\n");
    one.GoOn();
    EXPECT_EQ(WithoutTimes(one.Finish()), "[ERROR][one]:\t1\n[ERROR][one]:\t3\n[ERROR][one]:\t5\n");
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())),
              "[ERROR][one]:\t1\n[ERROR][two]:\t2\n[ERROR][one]:\t3\n[ERROR][two]:\t4\n"
              "[ERROR][one]:\t5\n");
}

TEST_F(LogSystemTest, LargeFileIsRotatedBeforeTheFirstRecordAndNeverAgain) {
    MakeFile(profile.Log(), kRotated, "before");
    Writer writer(OutputFile(), {Error("m", "1"), "meet", Error("m", "2")});
    ASSERT_NO_FATAL_FAILURE(writer.Meet());
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())), "[ERROR][m]:\t1\n");
    EXPECT_EQ(FileBytes(profile.OldLog()).substr(0, 6), "before");
    std::filesystem::resize_file(profile.Log(), kRotated);
    writer.GoOn();
    writer.Finish();
    EXPECT_EQ(FileBytes(profile.OldLog()).substr(0, 6), "before");
    EXPECT_TRUE(FileText(profile.Log()).ends_with("[ERROR][m]:\t2\n"));
}

TEST_F(LogSystemTest, FileOfFiveMebibytesIsAppendedTo) {
    MakeFile(profile.Log(), kRotated - 1);
    Run({Error("m", "1")});
    EXPECT_FALSE(std::filesystem::exists(profile.OldLog()));
    EXPECT_GT(std::filesystem::file_size(profile.Log()), kRotated);
    EXPECT_TRUE(FileText(profile.Log()).ends_with("[ERROR][m]:\t1\n"));
}

/// What is put out for each record that can't be written: itself, and why not.
void ExpectFailure(const std::string& output, const std::string& records) {
    std::string printed;
    std::size_t failures = 0;
    for (const std::string& line : Lines(WithoutTimes(output))) {
        if (line.starts_with(kExceptionLine) && line.size() > sizeof(kExceptionLine))
            ++failures;
        else
            printed += line + '\n';
    }
    EXPECT_EQ(printed, records);
    EXPECT_EQ(failures, Lines(records).size()) << output;
}

TEST_F(LogSystemTest, FileThatCannotBeOpenedIsALineForEachRecordUntilItCan) {
    std::filesystem::create_directories(profile.Log());
    Writer writer(OutputFile(), {Error("m", "1"), Error("m", "2"), "meet", Error("m", "3")});
    ASSERT_NO_FATAL_FAILURE(writer.Meet());
    ExpectFailure(writer.Output(), "[ERROR][m]:\t1\n[ERROR][m]:\t2\n");
    std::filesystem::remove(profile.Log());
    writer.GoOn();
    writer.Finish();
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())), "[ERROR][m]:\t3\n");
}

TEST_F(LogSystemTest, DiskThatIsFullIsALineForEachRecord) {
    Writer writer(OutputFile(), {"full", Error("m", "1"), Error("m", "2")});
    writer.Finish();
    ExpectFailure(writer.Output(), "[ERROR][m]:\t1\n[ERROR][m]:\t2\n");
    EXPECT_EQ(FileText(profile.Log()), "");
}

TEST_F(LogSystemTest, FolderThatCannotBeMadeIsALineForEachRecordUntilItCan) {
    MakeFile(profile.Folder() / "AppData");
    Writer writer(OutputFile(), {Error("m", "1"), Error("m", "2"), "meet", Error("m", "3")});
    ASSERT_NO_FATAL_FAILURE(writer.Meet());
    ExpectFailure(writer.Output(), "[ERROR][m]:\t1\n[ERROR][m]:\t2\n");
    std::filesystem::remove(profile.Folder() / "AppData");
    writer.GoOn();
    writer.Finish();
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())), "[ERROR][m]:\t3\n");
}

TEST_F(LogSystemTest, RotationThatFailsIsTriedAgainAndModulesAreReadOnlyAfterIt) {
    const EnvironmentVariable modules(L"LOG_MODULES", L"wanted");
    MakeFile(profile.OldLog(), 3, "old");
    MakeFile(profile.Log(), kRotated, "new");
    UniqueHandle holder = HoldOpen(profile.OldLog(), FILE_SHARE_READ | FILE_SHARE_WRITE);
    ASSERT_TRUE(holder);
    Writer writer(OutputFile(), {Error("m", "1"), Error("m", "2"), "meet", Error("m", "3"),
                                 Error("m", "4"), Error("wanted", "5")});
    ASSERT_NO_FATAL_FAILURE(writer.Meet());
    ExpectFailure(writer.Output(), "[ERROR][m]:\t1\n[ERROR][m]:\t2\n");
    EXPECT_EQ(std::filesystem::file_size(profile.Log()), kRotated);
    holder.reset();
    writer.GoOn();
    writer.Finish();
    EXPECT_EQ(FileBytes(profile.OldLog()).substr(0, 3), "new");
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())), "[ERROR][m]:\t3\n[ERROR][wanted]:\t5\n");
}

}  // namespace
