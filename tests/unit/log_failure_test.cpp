// What the log does with an exception that is none of the standard library's.
#include <cstdio>
#include <cstdlib>

#include <io.h>

#include <gtest/gtest.h>
#include <windows.h>

#include "import_hook.h"
#include "log/log_system.h"

extern "C" decltype(&::GetEnvironmentVariableW) __imp_GetEnvironmentVariableW;
extern "C" decltype(&::GetEnvironmentVariableA) __imp_GetEnvironmentVariableA;

namespace {

/// Writes a record while reading an environment variable throws a number. Standard output goes
/// where standard error goes. Ends the process.
[[noreturn]] void LogWithAStrangeException() {
    std::fflush(stdout);
    ::_dup2(::_fileno(stderr), ::_fileno(stdout));
    const HookedImport<&__imp_GetEnvironmentVariableA> read(
        [](const char*, char*, DWORD) -> DWORD { throw 7; });
    const HookedImport<&__imp_GetEnvironmentVariableW> readWide(
        [](const wchar_t*, wchar_t*, DWORD) -> DWORD { throw 7; });
    LogPrintf(kLogError, "module", "file", 1, "%s", "text");
    std::fputs("went on\n", stderr);
    std::fflush(stderr);
    std::_Exit(0);
}

TEST(LogFailure, ExceptionOfAnotherKindIsALineOnStandardOutput) {
    EXPECT_EXIT(LogWithAStrangeException(), ::testing::ExitedWithCode(0),
                "Uncaught exception encountered when attempting to log!\nwent on\n$");
}

}  // namespace
