// The setting up of the crash handler, with Windows' answers chosen by the test. Nothing crashes
// here.

#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "crash_setup_fixture.h"

namespace {

using IsRunningAsServiceTest = CrashSetupTest;
using SetUpCrashHandlerTest = CrashSetupTest;

TEST_F(IsRunningAsServiceTest, TrueForTheServiceThatThisProcessIs) {
    fake.RunAsService();
    EXPECT_TRUE(IsRunningAsService(L"a service"));
    EXPECT_EQ(fake.services, Folders({L"a service"}));
    EXPECT_EQ(fake.managerAccess, 0xF003FU);
    EXPECT_EQ(fake.serviceAccess, 0xF01FFU);
    EXPECT_EQ(fake.openServiceHandles, 0);
}

TEST_F(IsRunningAsServiceTest, FalseForAServiceThatIsAnotherProcess) {
    EXPECT_FALSE(IsRunningAsService(L"a service"));
    EXPECT_EQ(fake.openServiceHandles, 0);
}

TEST_F(IsRunningAsServiceTest, FalseForEachFailureAndNothingIsLeftOpen) {
    fake.RunAsService();
    for (bool FakeWindows::*const failure :
         {&FakeWindows::managerFails, &FakeWindows::serviceFails, &FakeWindows::queryFails}) {
        fake.*failure = true;
        EXPECT_FALSE(IsRunningAsService(L"a service"));
        EXPECT_EQ(fake.openServiceHandles, 0);
        fake.*failure = false;
    }
    EXPECT_TRUE(IsRunningAsService(L"a service"));
}

TEST_F(SetUpCrashHandlerTest, ServiceMakesTheTemporaryFolder) {
    fake.RunAsService();
    EXPECT_EQ(SetUpWith(fake), Lines());
    EXPECT_EQ(fake.services, Folders({L"Service"}));
    EXPECT_EQ(fake.folders, Folders({LR"(C:\Temporary\)"}));
    EXPECT_FALSE(fake.filters.empty());
    EXPECT_FALSE(fake.pipeWasTried);
}

TEST_F(SetUpCrashHandlerTest, ProgramMakesItsFoldersAndTriesTheCrashServer) {
    EXPECT_EQ(SetUpWith(fake), Lines());
    EXPECT_EQ(fake.folders, Folders({LR"(C:\Local\Orvik)", LR"(C:\Local\Orvik\Crash Reports)"}));
    EXPECT_FALSE(fake.filters.empty());
    EXPECT_TRUE(fake.pipeWasTried);
    EXPECT_EQ(fake.localFolders, 0);
}

TEST_F(SetUpCrashHandlerTest, ServiceWhoseQueryIsRefusedIsSetUpAsAProgram) {
    fake.RunAsService();
    fake.queryFails = true;
    EXPECT_EQ(SetUpWith(fake), Lines());
    EXPECT_EQ(fake.folders, Folders({LR"(C:\Local\Orvik)", LR"(C:\Local\Orvik\Crash Reports)"}));
    EXPECT_TRUE(fake.pipeWasTried);
    EXPECT_TRUE(Launch());
    EXPECT_NE(std::wstring(fake.commandLine.data()).find(L"|*|1|*|"), std::wstring::npos);
}

TEST_F(SetUpCrashHandlerTest, FolderThatIsThereAlreadyIsNoFailure) {
    fake.folderError = ERROR_ALREADY_EXISTS;
    for (const wchar_t* const folder : {LR"(C:\Local\Orvik)", LR"(C:\Local\Orvik\Crash Reports)"}) {
        fake.filters.clear();
        fake.failingFolder = folder;
        EXPECT_EQ(SetUpWith(fake), Lines());
        EXPECT_FALSE(fake.filters.empty());
    }
    fake.RunAsService();
    fake.filters.clear();
    fake.failingFolder = LR"(C:\Temporary\)";
    EXPECT_EQ(SetUpWith(fake), Lines());
    EXPECT_FALSE(fake.filters.empty());
}

TEST_F(SetUpCrashHandlerTest, SecondHandlerReplacesTheFirst) {
    SetUpWith(fake);
    const LPTOP_LEVEL_EXCEPTION_FILTER filter = fake.filters.back();
    fake.filters.clear();
    SetUpWith(fake);
    // The first one puts back what was there before it.
    ASSERT_EQ(fake.filters.size(), 2U);
    EXPECT_NE(fake.filters.front(), filter);
    EXPECT_EQ(fake.filters.back(), filter);
    // The first one's thread may hold the loader's lock: it must end by itself.
    EXPECT_EQ(fake.terminatedThreads, 0);
}

TEST_F(SetUpCrashHandlerTest, ServiceWithoutTemporaryFolderHasNoHandler) {
    fake.RunAsService();
    for (const DWORD length : {0U, 261U, 30'000U}) {
        fake.temporaryLength = length;
        ExpectFailure("GetTempPath failed");
    }
    EXPECT_EQ(fake.folders, Folders());
}

TEST_F(SetUpCrashHandlerTest, ServiceThatCannotMakeTheTemporaryFolderHasNoHandler) {
    fake.RunAsService();
    fake.failingFolder = LR"(C:\Temporary\)";
    ExpectFailure("CreateDirectoryW failed for temp directory");
}

TEST_F(SetUpCrashHandlerTest, ProgramWithoutLocalFolderHasNoHandler) {
    fake.localResult = E_FAIL;
    ExpectFailure("SHGetKnownFolderPath failed getting Local folder");
    EXPECT_EQ(fake.folders, Folders());
}

TEST_F(SetUpCrashHandlerTest, ProgramThatCannotMakeAFolderHasNoHandler) {
    fake.failingFolder = LR"(C:\Local\Orvik\Crash Reports)";
    ExpectFailure("CreateDirectoryW failed creating Orvik directory");
    EXPECT_EQ(fake.folders.size(), 2U);
    fake.folders.clear();
    fake.failingFolder = LR"(C:\Local\Orvik)";
    ExpectFailure("CreateDirectoryW failed creating Orvik directory");
    EXPECT_EQ(fake.folders.size(), 1U);
}

TEST_F(SetUpCrashHandlerTest, WithoutItsPathAProcessIsAProgramWithoutAReporter) {
    const Lines failure = {"[ERROR][crash]:\tGetModuleFileName failed"};
    SetUpWith(fake);  // with a reporter, which must be forgotten
    fake.RunAsService();
    fake.services.clear();
    for (const bool fails : {true, false}) {
        fake.programFails = fails;
        fake.program = LR"(C:\)" + std::wstring(257, L'p');  // one character too many
        fake.folders.clear();
        fake.filters.clear();
        EXPECT_EQ(SetUpWith(fake), failure);
        EXPECT_EQ(fake.folders.size(), 2U);
        EXPECT_FALSE(fake.filters.empty());
        EXPECT_FALSE(Launch());
        EXPECT_EQ(Logged(), Lines({"[ERROR][crash]:\tNo path to crashreporter"}));
    }
    EXPECT_EQ(fake.services, Folders());
    EXPECT_EQ(fake.starts, 0);
}

}  // namespace
