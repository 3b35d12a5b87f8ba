// Running orvikctl as it ships.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "system_test.h"

namespace system_test {

using Bytes = std::vector<std::byte>;
using Lines = std::vector<std::string>;
using Json = nlohmann::json;

/// The result of a run.
struct Result {
    DWORD exitCode;
    Lines output;
    Lines errors;
};

inline std::ostream& operator<<(std::ostream& stream, const Result& result) {
    return stream << "exit code " << result.exitCode << ", output "
                  << testing::PrintToString(result.output) << ", errors "
                  << testing::PrintToString(result.errors);
}

/// A run of orvikctl in progress. Its output is captured.
class OrvikctlProgram : public Program {
public:
    explicit OrvikctlProgram(const std::wstring& arguments)
        : Program(ProgramPath(L"orvikctl.exe"), arguments) {}

    Result Finish() {
        const DWORD exitCode = WaitForEnd();
        return {exitCode, Output().WaitForEnd(), Errors().WaitForEnd()};
    }
};

inline Result Orvikctl(const std::wstring& arguments) {
    return OrvikctlProgram(arguments).Finish();
}

/// For a service in the foreground.
inline const std::wstring kNoServerCheck = L"--no-server-check ";
inline Result OrvikctlInForeground(const std::wstring& arguments) {
    return Orvikctl(kNoServerCheck + arguments);
}

/// The one line of output of a successful run with --json.
inline Json JsonOf(const Result& result) {
    EXPECT_EQ(result.exitCode, 0u) << result;
    EXPECT_EQ(result.output.size(), 1u) << result;
    Json json = Json::parse(result.output.empty() ? "" : result.output.front(), nullptr, false);
    EXPECT_EQ(json.value("format_version", 0), 1) << result;
    return json;
}

/// The error that a failed run with --json reported as its last line on standard error.
inline Json ErrorOf(const Result& result) {
    EXPECT_FALSE(result.errors.empty()) << result;
    const Json json =
        Json::parse(result.errors.empty() ? "" : result.errors.back(), nullptr, false);
    EXPECT_EQ(json.value("format_version", 0), 1) << result;
    Json error = json.value("error", Json::object());
    EXPECT_EQ(error.value("exit_code", 0u), result.exitCode) << result;
    return error;
}

/// That a run failed with an exit code and a message that starts with `why` as its last line on
/// standard error, and has written nothing to standard output.
inline testing::AssertionResult Failed(const Result& result, DWORD exitCode,
                                       const std::string& why = "") {
    Lines errors = result.errors;
    if (exitCode == 2 && !errors.empty() && errors.back().starts_with("Try orvikctl "))
        errors.pop_back();
    if (result.exitCode == exitCode && result.output.empty() && !errors.empty() &&
        errors.back().starts_with("orvikctl: error: " + why))
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << result << ", expected exit code " << exitCode << " because " << why;
}

}  // namespace system_test
