// The dumps that crashing processes leave. Those that are kept are for the tests of
// scripts/walk-dump, which run afterwards.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <windows.h>

namespace system_test {

/// The dumps in a folder that were not there at construction. Those that are left go in the end.
class NewDumps {
public:
    explicit NewDumps(std::filesystem::path folder);
    ~NewDumps();

    NewDumps(const NewDumps&) = delete;
    NewDumps& operator=(const NewDumps&) = delete;

    std::vector<std::filesystem::path> Find() const;

private:
    std::vector<std::filesystem::path> All() const;

    std::filesystem::path folder;
    std::vector<std::filesystem::path> before;
};

/// Where the crash server of a process writes whose current folder is the system's, as is that of
/// services.
std::filesystem::path CrashServerFolder();

/// What a dump says about the crash.
struct Dump {
    DWORD exceptionCode = 0;
    std::uint64_t flags = 0;    // MINIDUMP_TYPE
    std::wstring module;        // file name of the one in which it happened; empty if in none
    bool hasItsThread = false;  // the thread that crashed is in the dump, with its stack
};

/// Throws std::runtime_error if it is none.
Dump ReadDump(const std::filesystem::path& path);

/// Moves the one dump that there is to be to where scripts/walk-dump is tested: to "NAME.dmp".
/// Throws std::runtime_error if there is none, or more.
Dump KeepDump(const std::vector<std::filesystem::path>& dumps, const std::wstring& name);

/// That a program wrote where it may not.
void ExpectFault(const Dump& dump, const std::wstring& module);

}  // namespace system_test
