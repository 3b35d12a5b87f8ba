// The lines of a trace (docs/client.md, "The trace").
#pragma once

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace client_test {

/// The lines of the file. The test fails if the last one has no end.
inline std::vector<std::string> LinesOf(const std::wstring& path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        EXPECT_FALSE(file.eof()) << line;
        lines.push_back(line);
    }
    return lines;
}

/// Removes the time, the process and the connection from the beginning of each line, and replaces
/// what differs from run to run by "N". The test fails if a line does not begin as it must.
inline std::vector<std::string> WithoutTimes(const std::vector<std::string>& lines) {
    static const std::regex whole(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z \d+\.\d+ ([*<>] .*))");
    static const std::regex number(R"((to process|after) \d+)");
    std::vector<std::string> texts;
    for (const std::string& line : lines) {
        std::smatch match;
        EXPECT_TRUE(std::regex_match(line, match, whole)) << line;
        texts.push_back(match.empty() ? line : std::regex_replace(match.str(1), number, "$1 N"));
    }
    return texts;
}

}  // namespace client_test
