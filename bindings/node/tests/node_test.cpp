// The JavaScript binding: its own tests, and its example with the real service.

#include <algorithm>
#include <cstddef>
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

/// The package, with a Node.js runtime.
std::wstring PackageFolder() {
    const std::wstring folder = TestFolder();
    return folder.substr(0, folder.find_last_of(L'\\')) + L"\\bindings\\node";
}

std::wstring NodePath() {
    return PackageFolder() + L"\\node.exe";
}

/// A file of the package, as an argument.
std::wstring InPackage(const std::wstring& file) {
    return L" \"" + PackageFolder() + L"\\" + file + L"\"";
}

/// What node.exe needs to run `script`.
std::wstring Arguments(const std::wstring& script) {
    ::SetEnvironmentVariableW(L"NODE_SKIP_PLATFORM_CHECK", L"1");  // Wine says Windows 7
    ::SetEnvironmentVariableW(L"UV_THREADPOOL_SIZE", L"1");        // for under_wine.js
    return L"-r" + InPackage(L"tests\\under_wine.js") + InPackage(script);
}

void ExpectPasses(const std::wstring& arguments, const std::string& count) {
    Program tests(NodePath(), arguments);
    const std::vector<std::string> output = tests.Output().WaitForEnd();
    EXPECT_EQ(tests.WaitForEnd(), 0u) << tests.Output().Text() << tests.Errors().Text();
    EXPECT_TRUE(std::find(output.begin(), output.end(), "# pass " + count) != output.end())
        << tests.Output().Text();
}

TEST(NodeBinding, PassesItsTests) {
    ExpectPasses(Arguments(L"tests\\binding.test.js"), "17");
}

TEST(NodeBinding, SendsRequestsInTheOrderOfTheCalls) {
    ::SetEnvironmentVariableW(L"NODE_SKIP_PLATFORM_CHECK", L"1");  // Wine says Windows 7
    ::SetEnvironmentVariableW(L"UV_THREADPOOL_SIZE", nullptr);
    ExpectPasses(InPackage(L"tests\\order.test.js"), "1");
}

class NodePhotoTest : public WatchingTest {
protected:
    ~NodePhotoTest() override { ::DeleteFileW(path.c_str()); }

    std::wstring PhotoArguments() const {
        return Arguments(L"examples\\photo.js") + L" \"" + path + L"\"";
    }

    /// Plugs a camera whose memory has a pattern. Only before the program starts: it may read a
    /// camera at once.
    void PlugWithPattern() {
        camera.emplace(bus);
        bus.WriteMemory(camera->Id(), 0, Pattern(kLength));
    }

    /// Waits until the driver holds the first reads.
    void WaitForReads() {
        bus.WaitForPending(camera->Id(), 1, kDeadline);  // READ CAPACITY
        bus.ReleaseAll(camera->Id());
        bus.WaitForPending(camera->Id(), 4, kDeadline);
    }

    void EndReads() {
        camera->Set({});
        bus.ReleaseAll(camera->Id());
    }

    /// Waits for the end of the program, which has saved the camera's memory.
    void ExpectSaved(Program& photo) {
        photo.Output().WaitFor("saved");
        EXPECT_EQ(photo.WaitForEnd(), 0u) << photo.Output().Text();
        EXPECT_EQ(photo.Errors().WaitForEnd(), std::vector<std::string>());
        EXPECT_TRUE(ContentOf(path) == bus.ReadMemory(camera->Id(), 0, kLength));
    }

    static constexpr std::size_t kLength = 1 << 20;

    const std::wstring path = TestFolder() + L"\\photo.bin";
    std::optional<PluggedCamera> camera;
};

INSTANTIATE_TEST_SUITE_P(Modes, NodePhotoTest, testing::Values(RunMode::kServiceManager), NameOf);

TEST_P(NodePhotoTest, WaitsForACamera) {
    Program photo(NodePath(), PhotoArguments());
    photo.Output().WaitFor("waiting for a camera");
    camera.emplace(bus);
    ExpectSaved(photo);
    EXPECT_TRUE(service.IsRunning());
}

TEST_P(NodePhotoTest, ReadsAgainAfterUnplugAndReplug) {
    PlugWithPattern();
    camera->Set(Holds());
    Program photo(NodePath(), PhotoArguments());
    WaitForReads();
    camera->Unplug();
    photo.Output().WaitFor("waiting for a camera", 2);
    const std::string failed = photo.Output().WaitFor("the transfer failed: ").front();
    EXPECT_NE(failed.find("was unplugged"), std::string::npos) << failed;
    camera.emplace(bus);
    ExpectSaved(photo);
    EXPECT_TRUE(service.IsRunning());
}

TEST_P(NodePhotoTest, ReadsAgainAfterARestartOfTheService) {
    PlugWithPattern();
    camera->Set(Holds());
    Program photo(NodePath(), PhotoArguments());
    WaitForReads();
    service.Stop();
    photo.Output().WaitFor("waiting for a camera", 2);
    photo.Output().WaitFor("the transfer failed: the service has closed the connection");
    EndReads();
    service.Start();
    ExpectSaved(photo);
    EXPECT_TRUE(service.IsRunning());
}

TEST_P(NodePhotoTest, CtrlCEndsItWhileItWaits) {
    TestConsole console;
    console.Start(NodePath(), PhotoArguments());
    for (const Deadline deadline; console.Screen().empty(); ::Sleep(kMillisecondsBetweenLooks))
        ASSERT_FALSE(deadline.Over());  // no event reports the line
    console.PressCtrlC();
    EXPECT_EQ(console.WaitForEnd(), 1u);
    EXPECT_EQ(console.Screen(), (std::vector<std::string>{"waiting for a camera", "stopped"}));
    EXPECT_TRUE(service.IsRunning());
}

TEST_P(NodePhotoTest, CtrlCEndsItWhileItReads) {
    PlugWithPattern();
    camera->Set(Holds());
    TestConsole console;
    console.Start(NodePath(), PhotoArguments());
    WaitForReads();
    console.PressCtrlC();
    EXPECT_EQ(console.WaitForEnd(), 1u);
    EXPECT_EQ(console.Screen().back(), "stopped");
    EndReads();
    EXPECT_TRUE(service.IsRunning());
}

}  // namespace
}  // namespace system_test
