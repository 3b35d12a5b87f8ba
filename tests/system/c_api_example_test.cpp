// The example of the C interface, run as it is, with the real service.

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/camera_setup.h"
#include "support/file_content.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "test_console.h"
#include "watching_test.h"

namespace system_test {
namespace {

std::wstring CamerasPath() {
    const std::wstring folder = TestFolder();
    return folder.substr(0, folder.find_last_of(L'\\')) + L"\\examples\\cameras.exe";
}

class CApiExampleTest : public WatchingTest {};

INSTANTIATE_TEST_SUITE_P(Modes, CApiExampleTest, testing::Values(RunMode::kServiceManager), NameOf);

TEST_P(CApiExampleTest, ListPrintsTheCameras) {
    const PluggedCamera camera(bus);
    Program list(CamerasPath(), L"list");
    EXPECT_EQ(list.Output().WaitForEnd(),
              std::vector<std::string>{std::to_string(nextId) + ": Orvik Virtual Camera"});
    EXPECT_EQ(list.Errors().WaitForEnd(), std::vector<std::string>());
    EXPECT_EQ(list.WaitForEnd(), 0u);
}

/// Runs the example to its end, which prints how many blocks it has read; returns the file's
/// content.
std::vector<std::byte> RunRead(const std::function<void()>& whileItRuns, const char* expected) {
    const std::wstring path = TestFolder() + L"\\cameras_read.bin";
    Program read(CamerasPath(), L"read \"" + path + L"\"");
    whileItRuns();
    EXPECT_EQ(read.Output().WaitForEnd(), std::vector<std::string>{expected});
    const std::vector<std::string> progress = read.Errors().WaitForEnd();
    EXPECT_EQ(progress.size(), 1u) << read.Errors().Text();
    EXPECT_NE(read.Errors().Text().find("100 %"), std::string::npos) << read.Errors().Text();
    EXPECT_EQ(read.WaitForEnd(), 0u);
    Bytes content = ContentOf(path);
    ::DeleteFileW(path.c_str());
    return content;
}

TEST_P(CApiExampleTest, ReadCopiesTheWholeCamera) {
    vcam::PlugOptions options;
    options.blockCount = 2049;
    const PluggedCamera camera(bus, options);
    const Bytes memory = Pattern(2049 * vcam::kBlockSize);
    bus.WriteMemory(camera.Id(), 0, memory);
    EXPECT_TRUE(RunRead([] {}, "read 2049 blocks") == memory);
    EXPECT_TRUE(service.IsRunning());
}

TEST_P(CApiExampleTest, ReadWaitsForACamera) {
    std::optional<PluggedCamera> camera;
    EXPECT_EQ(RunRead([&] { camera.emplace(bus); }, "read 2048 blocks").size(),
              2048 * vcam::kBlockSize);
}

TEST_P(CApiExampleTest, CtrlCEndsReadWithoutHarmToTheService) {
    PluggedCamera camera(bus);
    camera.Set(Holds());
    TestConsole console;
    const std::wstring path = TestFolder() + L"\\cameras_stopped.bin";
    console.Start(CamerasPath(), L"read \"" + path + L"\"");
    bus.WaitForPending(camera.Id(), 1, kDeadline);  // READ CAPACITY
    bus.ReleaseAll(camera.Id());
    bus.WaitForPending(camera.Id(), 4, kDeadline);
    console.PressCtrlC();
    EXPECT_EQ(console.WaitForEnd(), 1u);
    EXPECT_EQ(console.Screen(), std::vector<std::string>({"", "stopped"}));
    bus.ReleaseAll(camera.Id());
    ::DeleteFileW(path.c_str());
    EXPECT_TRUE(service.IsRunning());
}

TEST_P(CApiExampleTest, WatchPrintsChangesUntilCtrlC) {
    TestConsole console;
    console.Start(CamerasPath(), L"watch");
    const auto waitFor = [&](const std::string& line) {
        const Deadline deadline;
        while (console.Screen().empty() || console.Screen().back() != line) {
            ASSERT_FALSE(deadline.Over()) << line;
            ::Sleep(kMillisecondsBetweenLooks);  // no event reports it
        }
    };
    waitFor("connected");
    const std::string name = "camera " + std::to_string(nextId);
    {
        const PluggedCamera camera(bus);
        waitFor(name + " is attached");
    }
    waitFor(name + " is detached");
    console.PressCtrlC();
    EXPECT_EQ(console.WaitForEnd(), 0u);
    EXPECT_EQ(console.Screen(), std::vector<std::string>(
                                    {"connected", name + " is attached", name + " is detached"}));
    EXPECT_TRUE(service.IsRunning());
}

}  // namespace
}  // namespace system_test
