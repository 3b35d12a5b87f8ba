// The start of the crash reporter, with Windows' answers chosen by the test. Nothing crashes here.

#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "crash_setup_fixture.h"
#include "guarded_heap.h"

namespace {

using LaunchCrashReporterTest = CrashSetupTest;

TEST_F(LaunchCrashReporterTest, ServicePassesItsModeAndName) {
    fake.RunAsService();
    SetUpWith(fake);
    EXPECT_TRUE(Launch());
    EXPECT_STREQ(fake.application.data(), LR"(C:\Programs\crashreporter.exe)");
    EXPECT_STREQ(fake.commandLine.data(),
                 LR"("C:\Programs\crashreporter.exe" |*|0|*|C:\dumps\id.dmp|*|OrvikService|*|)"
                 LR"(4.0.4 (unknown)|*|Unknown|*|)");
    EXPECT_EQ(Logged(), Lines());
}

TEST_F(LaunchCrashReporterTest, ProgramPassesItsModeAndName) {
    SetUpWith(fake);
    EXPECT_TRUE(Launch());
    EXPECT_STREQ(fake.commandLine.data(),
                 LR"("C:\Programs\crashreporter.exe" |*|1|*|C:\dumps\id.dmp|*|Orvik|*|)"
                 LR"(4.0.4 (unknown)|*|Unknown|*|)");
}

TEST_F(LaunchCrashReporterTest, ReporterStartsOnTheDesktopOfTheUserAndItsHandlesAreClosed) {
    SetUpWith(fake);
    EXPECT_TRUE(Launch());
    EXPECT_STREQ(fake.desktop.data(), LR"(winsta0\default)");
    EXPECT_TRUE(fake.startsPlainly);
    DWORD flags = 0;
    EXPECT_FALSE(::GetHandleInformation(fake.process, &flags));
    EXPECT_FALSE(::GetHandleInformation(fake.thread, &flags));
}

TEST_F(LaunchCrashReporterTest, ResultOfTheDumpIsPassedOn) {
    SetUpWith(fake);
    EXPECT_TRUE(Launch(true));
    EXPECT_FALSE(Launch(false));
    EXPECT_EQ(fake.starts, 2);
    EXPECT_EQ(Logged(), Lines());
}

TEST_F(LaunchCrashReporterTest, MissingFolderAndNameAreLeftOut) {
    SetUpWith(fake);
    EXPECT_TRUE(LaunchCrashReporter(nullptr, nullptr, nullptr, nullptr, nullptr, true));
    EXPECT_STREQ(fake.commandLine.data(),
                 LR"("C:\Programs\crashreporter.exe" |*|1|*|\.dmp|*|Orvik|*|4.0.4 (unknown)|*|)"
                 LR"(Unknown|*|)");
}

TEST_F(LaunchCrashReporterTest, StartThatFailsIsLogged) {
    fake.startFails = true;
    SetUpWith(fake);
    EXPECT_FALSE(Launch());
    EXPECT_EQ(Logged(), Lines({"[ERROR][crash]:\tCreateProcess failed"}));
}

TEST_F(LaunchCrashReporterTest, ReportersPathHasUpTo259Characters) {
    fake.program = LR"(C:\)" + std::wstring(238, L'p') + LR"(\s.exe)";
    const std::wstring reporter = LR"(C:\)" + std::wstring(238, L'p') + LR"(\crashreporter.exe)";
    ASSERT_EQ(reporter.size(), 259U);
    EXPECT_EQ(SetUpWith(fake), Lines());
    EXPECT_TRUE(Launch());
    EXPECT_EQ(fake.application.data(), reporter);

    fake.program = LR"(C:\)" + std::wstring(239, L'p') + LR"(\s.exe)";
    EXPECT_EQ(SetUpWith(fake), Lines());
    EXPECT_FALSE(Launch());
    EXPECT_EQ(fake.starts, 1);
    EXPECT_EQ(Logged(), Lines({"[ERROR][crash]:\tNo path to crashreporter"}));
}

TEST_F(LaunchCrashReporterTest, FolderOfMoreThan255CharactersHasNoReporter) {
    fake.RunAsService();
    fake.program = LR"(C:\)" + std::wstring(254, L'p') + LR"(\s)";
    ASSERT_EQ(fake.program.size(), 259U);
    EXPECT_EQ(SetUpWith(fake), Lines());
    EXPECT_EQ(fake.services, Folders()) << "without a name it is no service";
    EXPECT_FALSE(Launch());
    EXPECT_EQ(Logged(), Lines({"[ERROR][crash]:\tNo path to crashreporter"}));
}

TEST_F(LaunchCrashReporterTest, LongCommandLineIsCut) {
    SetUpCrashHandler(std::wstring(3000, L'v'), L"Unknown");
    EXPECT_TRUE(Launch());
    const std::wstring start =
        LR"("C:\Programs\crashreporter.exe" |*|1|*|C:\dumps\id.dmp|*|Orvik|*|)";
    EXPECT_EQ(fake.commandLine.data(), start + std::wstring(1023 - start.size(), L'v'));
}

TEST_F(LaunchCrashReporterTest, NothingIsAllocated) {
    ORVIK_NEEDS_GUARDED_HEAP();
    SetUpWith(fake);
    guarded_heap::AllocationRecord record;
    const bool result = Launch();
    EXPECT_EQ(record.Stop(), std::vector<std::size_t>());
    EXPECT_TRUE(result);
}

}  // namespace
