// orvikctl watch.

#include "orvikctl_program.h"
#include "watching_test.h"

namespace system_test {
namespace {

/// No camera is plugged; the service names the next one `nextId`.
class OrvikctlWatch : public WatchingTest {
protected:
    static std::string Attached(std::uint32_t id) { return "attached " + std::to_string(id); }
    static std::string Detached(std::uint32_t id) { return "detached " + std::to_string(id); }
};
INSTANTIATE_TEST_SUITE_P(Modes, OrvikctlWatch, testing::Values(RunMode::kForeground), NameOf);

TEST_P(OrvikctlWatch, FirstTheCamerasPresentThenEachEventAtOnce) {
    PluggedCamera present(bus);
    {
        RawClient client;  // the service has noticed the camera when it answers
        ExpectAttached(client);
        Leave(client, nextId - 1);
    }
    OrvikctlProgram watch(kNoServerCheck + L"watch --count 4");
    const std::uint32_t id = nextId;
    watch.Output().WaitFor(Attached(id - 1));
    PluggedCamera next(bus);
    watch.Output().WaitFor(Attached(id));
    next.Unplug();
    watch.Output().WaitFor(Detached(id));
    EXPECT_TRUE(watch.IsRunning());
    present.Unplug();
    const Result result = watch.Finish();
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.output,
              (Lines{Attached(id - 1), Attached(id), Detached(id), Detached(id - 1)}));
    EXPECT_EQ(result.errors, Lines{});
    EXPECT_TRUE(service.IsRunning());
}

TEST_P(OrvikctlWatch, OneObjectPerLineInJson) {
    OrvikctlProgram watch(kNoServerCheck + L"watch --json --count 2");
    service.Output().WaitFor("attached main communicator", 2);
    PluggedCamera camera(bus);
    const std::string attached = watch.Output().WaitFor("{").at(0);
    EXPECT_EQ(Json::parse(attached),
              (Json{{"format_version", 1}, {"event", "attached"}, {"camera", nextId}}));
    camera.Unplug();
    const Result result = watch.Finish();
    EXPECT_EQ(result.exitCode, 0u);
    ASSERT_EQ(result.output.size(), 2u) << result;
    EXPECT_EQ(Json::parse(result.output[1]),
              (Json{{"format_version", 1}, {"event", "detached"}, {"camera", nextId}}));
}

TEST_P(OrvikctlWatch, EndsAfterItsTime) {
    const Result alone = OrvikctlInForeground(L"watch --timeout 0.2");
    EXPECT_EQ(alone.exitCode, 0u) << alone;
    EXPECT_EQ(alone.errors, Lines{});
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"watch --timeout 0.2 --count 1"), 7,
                       "timed out (--timeout) after 0 lines, fewer than --count"));
    EXPECT_TRUE(service.IsRunning());
}

TEST_P(OrvikctlWatch, ServiceKilled) {
    OrvikctlProgram watch(kNoServerCheck + L"watch");
    service.Output().WaitFor("attached main communicator", 2);  // the fixture was the first
    service.Stop();
    EXPECT_TRUE(Failed(watch.Finish(), 9));
}

TEST_P(OrvikctlWatch, SecondOneGetsNoEvent) {
    OrvikctlProgram first(kNoServerCheck + L"watch --count 1");
    service.Output().WaitFor("attached main communicator", 2);
    OrvikctlProgram second(kNoServerCheck + L"watch");
    service.Output().WaitFor("attached camera pipe");
    PluggedCamera camera(bus);
    EXPECT_EQ(first.Finish().output, Lines{Attached(nextId)});
    service.Stop();  // the second one reads its pipe to the end, however late the camera was
    const Result result = second.Finish();
    EXPECT_EQ(result.exitCode, 9u);
    EXPECT_EQ(result.output, Lines{});
}

TEST_P(OrvikctlWatch, HelpDescribesTheMainCommunicator) {
    const Result result = Orvikctl(L"watch --help");
    const std::string text = testing::PrintToString(result.output);
    EXPECT_NE(text.find("watch becomes the main communicator: "), std::string::npos) << text;
}

}  // namespace
}  // namespace system_test
