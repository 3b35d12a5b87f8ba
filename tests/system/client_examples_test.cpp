// The examples of the client library, run as they are, and the page that shows them.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/file_content.h"
#include "support/plugged_camera.h"
#include "support/trace_lines.h"
#include "suspended_process.h"
#include "system_test.h"
#include "test_console.h"
#include "watching_test.h"

namespace system_test {
namespace {

using client_test::LinesOf;
using client_test::WithoutTimes;

std::wstring ExamplePath(const wchar_t* fileName) {
    const std::wstring folder = TestFolder();
    return folder.substr(0, folder.find_last_of(L'\\')) + L"\\examples\\" + fileName;
}

std::string ContentsOf(const std::wstring& path) {
    std::ifstream file(ToUtf8(path), std::ios::binary);
    EXPECT_TRUE(file.is_open()) << ToUtf8(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The blocks of a page that begin with ``` and `language`, in order.
std::vector<std::string> Blocks(const std::string& language, const wchar_t* name = L"client.md") {
    std::istringstream page(ContentsOf(TestFolder() + L"\\" + name));  // the build copies it
    std::vector<std::string> blocks;
    for (std::string line; std::getline(page, line);) {
        if (line != "```" + language)
            continue;
        blocks.emplace_back();
        while (std::getline(page, line) && line != "```")
            blocks.back() += line + "\n";
    }
    return blocks;
}

std::string Joined(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines)
        text += line + "\n";
    return text;
}

std::vector<std::string> Lines(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

class ClientExamplesTest : public SystemTest {
protected:
    PluggedCamera camera{bus};
    RunningService service{RunMode::kServiceManager};
};

TEST_F(ClientExamplesTest, PageShowsTheFirstProgramAndItsOutput) {
    EXPECT_EQ(Blocks("cpp").at(1), ContentsOf(TestFolder() + L"\\list.cpp"));
    Program list(ExamplePath(L"list.exe"), L"");
    EXPECT_EQ(Joined(list.Output().WaitForEnd()), Blocks("text").at(0));
    EXPECT_EQ(list.Errors().WaitForEnd(), std::vector<std::string>());
    EXPECT_EQ(list.WaitForEnd(), 0u);
}

TEST_F(ClientExamplesTest, PageOfTheCInterfaceShowsTheFirstProgramAndItsOutput) {
    EXPECT_EQ(Blocks("c", L"c-api.md").at(0), ContentsOf(TestFolder() + L"\\first.c"));
    Program first(ExamplePath(L"first.exe"), L"");
    EXPECT_EQ(Joined(first.Output().WaitForEnd()), Blocks("text", L"c-api.md").at(0));
    EXPECT_EQ(first.Errors().WaitForEnd(), std::vector<std::string>());
    EXPECT_EQ(first.WaitForEnd(), 0u);
}

/// What the programs of these tests write their trace to.
class TraceVariable {
public:
    explicit TraceVariable(std::wstring file) : path(std::move(file)) {
        ::SetEnvironmentVariableW(L"ORVIK_TRACE", path.c_str());
    }
    ~TraceVariable() {
        ::SetEnvironmentVariableW(L"ORVIK_TRACE", nullptr);
        ::DeleteFileW(path.c_str());
    }

    TraceVariable(const TraceVariable&) = delete;
    TraceVariable& operator=(const TraceVariable&) = delete;

    const std::wstring path;
};

TEST_F(ClientExamplesTest, PageShowsTheTraceOfTheFirstProgram) {
    const TraceVariable trace(TestFolder() + L"\\trace.txt");
    Program list(ExamplePath(L"list.exe"), L"");
    EXPECT_EQ(list.WaitForEnd(), 0u);
    EXPECT_EQ(WithoutTimes(LinesOf(trace.path)), WithoutTimes(Lines(Blocks("text").at(1))));
}

TEST_F(ClientExamplesTest, TraceThatCannotBeWrittenDoesNotDisturbTheProgram) {
    const TraceVariable trace(TestFolder());
    Program list(ExamplePath(L"list.exe"), L"");
    EXPECT_EQ(Joined(list.Output().WaitForEnd()), Blocks("text").at(0));
    EXPECT_EQ(list.Errors().WaitForEnd(), std::vector<std::string>());
    EXPECT_EQ(list.WaitForEnd(), 0u);
}

using ClientExamplesWatchingTest = WatchingTest;

TEST_P(ClientExamplesWatchingTest, WatchPrintsAttachedAndDetachedCameras) {
    Program watch(ExamplePath(L"watch.exe"), L"");
    const std::string name = "camera " + std::to_string(nextId);
    {
        // Printed once, whether the program or the camera is first.
        const PluggedCamera camera(bus);
        watch.Output().WaitFor(name + " is attached");
    }
    watch.Output().WaitFor(name + " is detached");
    service.Stop();
    EXPECT_EQ(watch.Output().WaitForEnd(),
              (std::vector<std::string>{name + " is attached", name + " is detached",
                                        "the service has ended"}));
    EXPECT_EQ(watch.WaitForEnd(), 0u);
}

/// The photo program: 1 MiB, with four transfers outstanding.
class PhotoExample : public WatchingTest {
protected:
    static constexpr std::uint32_t kOutstanding = 4;

    ~PhotoExample() override { ::DeleteFileW(path.c_str()); }

    /// Plugs a camera that holds all commands. The service sees it only then.
    std::unique_ptr<PluggedCamera> PlugHolding() {
        const SuspendedProcess suspended(service.Process());
        auto camera = std::make_unique<PluggedCamera>(bus);
        camera->Set(Holds());
        bus.WriteMemory(camera->Id(), 0, memory);
        return camera;
    }

    const Bytes memory = Pattern(2048 * vcam::kBlockSize);
    const std::wstring path = TestFolder() + L"\\photo.bin";
    const std::wstring program = ExamplePath(L"photo.exe");
};

TEST_P(PhotoExample, WaitsAndSurvivesUnplugReplugAndARestartOfTheService) {
    Program photo(program, L"\"" + path + L"\"");
    photo.Output().WaitFor("waiting for a camera");
    auto first = PlugHolding();
    bus.WaitForPending(first->Id(), kOutstanding, kDeadline);
    first->Unplug();
    photo.Output().WaitFor("waiting for a camera", 2);
    const auto second = PlugHolding();
    bus.WaitForPending(second->Id(), kOutstanding, kDeadline);
    service.Stop();
    photo.Output().WaitFor("waiting for a camera", 3);
    bus.ReleaseAll(second->Id());
    service.Start();
    bus.WaitForPending(second->Id(), kOutstanding, kDeadline);
    second->Set({});
    bus.ReleaseAll(second->Id());
    EXPECT_EQ(photo.WaitForEnd(), 0u);
    const std::string progress = photo.Output().WaitForEnd().back();
    EXPECT_EQ(progress.substr(0, 17), "\r64 of 1024 KiB\r1");
    EXPECT_NE(progress.find("\r960 of 1024 KiB\r1024 of 1024 KiB"), std::string::npos) << progress;
    EXPECT_EQ(photo.Errors().WaitForEnd(), std::vector<std::string>());
    EXPECT_TRUE(ContentOf(path) == memory);
    EXPECT_TRUE(service.IsRunning());
}

TEST_P(PhotoExample, CtrlCEndsItAtAnyMomentAndDoesNotEndTheRun) {
    TestConsole console;
    auto start = [&, runs = 0]() mutable {
        console.Start(program, L"\"" + path + L"\"");
        ++runs;
        const Deadline deadline;
        for (std::vector<std::string> lines; lines.size() != static_cast<std::size_t>(runs);) {
            ASSERT_FALSE(deadline.Over()) << testing::PrintToString(lines);
            ::Sleep(kMillisecondsBetweenLooks);  // no event reports it
            lines = console.Screen();
            std::erase_if(lines, [](const auto& line) { return line != "waiting for a camera"; });
        }
    };
    const auto expectEnd = [&] {
        console.PressCtrlC();
        EXPECT_EQ(console.WaitForEnd(), 1u);
    };
    start();
    expectEnd();

    const auto camera = PlugHolding();
    start();
    bus.WaitForPending(camera->Id(), kOutstanding, kDeadline);
    expectEnd();
    bus.ReleaseAll(camera->Id());
    RawClient client;  // the service answers, so its run has not ended
    client.ReceiveMessage();
    EXPECT_TRUE(service.IsRunning());

    service.Stop();
    start();
    expectEnd();
    service.Start();
    EXPECT_EQ(::GetFileAttributesW(path.c_str()), INVALID_FILE_ATTRIBUTES) << "a file was written";
}

INSTANTIATE_TEST_SUITE_P(Modes, PhotoExample, testing::Values(RunMode::kServiceManager), NameOf);
INSTANTIATE_TEST_SUITE_P(Modes, ClientExamplesWatchingTest,
                         testing::Values(RunMode::kServiceManager), NameOf);

}  // namespace
}  // namespace system_test
