// Running vcamctl.exe, which installs the virtual camera and steers it from the command line.
#pragma once

#include <string>
#include <vector>

#include "system_test.h"

namespace system_test {

/// What a run of a program left.
struct ProgramResult {
    DWORD exitCode;
    std::vector<std::string> output;
    std::vector<std::string> errors;
};

/// The build puts vcamctl into the folder virtualcamera beside that of the tests.
inline ProgramResult Vcamctl(const std::wstring& arguments) {
    Program program(TestFolder() + L"\\..\\virtualcamera\\vcamctl.exe", arguments);
    const DWORD exitCode = program.WaitForEnd();
    return {exitCode, program.Output().WaitForEnd(), program.Errors().WaitForEnd()};
}

}  // namespace system_test
