// The samples of docs/orvikctl.md are what orvikctl prints.

#include <fstream>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "orvikctl_fixture.h"
#include "test_console.h"

namespace system_test {
namespace {

/// A command line of the page, and what it prints there.
struct Sample {
    std::string command;
    Lines output;
};

std::vector<Sample> SamplesOf(const std::wstring& page) {
    std::ifstream stream{std::filesystem::path(page)};
    std::vector<Sample> samples;
    bool inside = false;
    for (std::string line; std::getline(stream, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (line.starts_with("```"))
            inside = line == "```console";
        else if (inside && line.starts_with("> orvikctl "))
            samples.push_back({line.substr(11), {}});
        else if (inside && !samples.empty())
            samples.back().output.push_back(line);
    }
    return samples;
}

/// Without what differs from run to run and from machine to machine.
Lines Masked(Lines lines) {
    static const std::regex kVarying(
        R"(^(process|program|log folder|dump folder|newest dump|last crash|recovery)( +).*)");
    static const std::regex kTime(R"([0-9]+\.[0-9]+ ms)");
    static const std::regex kDuration(R"(in [0-9]+\.[0-9]+ s:)");
    static const std::regex kRate(R"( +[0-9]+\.[0-9] MB/s)");
    for (std::string& line : lines) {
        line = std::regex_replace(line, kVarying, "$1$2#");
        line = std::regex_replace(line, kTime, "# ms");
        line = std::regex_replace(line, kDuration, "in # s:");
        line = std::regex_replace(line, kRate, " # MB/s");
    }
    return lines;
}

TEST_F(OrvikctlTest, SamplesOnThePageAreWhatItPrints) {
    const PluggedCamera camera(bus);
    const RunningService service(RunMode::kServiceManager);
    const std::vector<Sample> samples = SamplesOf(TestFolder() + L"\\orvikctl.md");
    EXPECT_EQ(samples.size(), 17u);
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder);  // where the samples find and leave their files
    TestConsole console;
    std::size_t linesBefore = 0;
    for (const Sample& sample : samples) {
        console.Start(ProgramPath(L"orvikctl.exe"),
                      std::wstring(sample.command.begin(), sample.command.end()));
        console.WaitForEnd();
        Lines screen = console.Screen();
        const Lines output(screen.begin() + static_cast<std::ptrdiff_t>(linesBefore), screen.end());
        linesBefore = screen.size();
        EXPECT_EQ(Masked(output), Masked(sample.output)) << sample.command;
    }
    std::filesystem::current_path(before);
}

}  // namespace
}  // namespace system_test
