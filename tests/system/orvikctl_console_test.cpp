// orvikctl on a console: what it shows there, and Ctrl-C.

#include <algorithm>
#include <optional>

#include "orvikctl_fixture.h"
#include "test_console.h"

namespace system_test {
namespace {

class OrvikctlOnConsole : public OrvikctlWithCamera {
protected:
    void Start(const std::wstring& arguments) {
        console.Start(ProgramPath(L"orvikctl.exe"), kNoServerCheck + arguments);
    }

    /// Starts it and waits until the camera holds `pending` commands.
    void StartHeld(const std::wstring& arguments, std::uint32_t pending) {
        camera.Set(Holds());
        Start(arguments);
        bus.WaitForPending(camera.Id(), pending, kDeadline);
    }
    /// For read and write: READ CAPACITY comes first, then 3 commands for the whole camera.
    void StartHeldInBlocks(const std::wstring& arguments) {
        StartHeld(arguments, 1);
        bus.ReleaseAll(camera.Id());
        bus.WaitForPending(camera.Id(), 3, kDeadline);
    }

    /// That the service goes on and the camera answers.
    void ExpectNoHarm() {
        bus.ReleaseAll(camera.Id());
        camera.Set({});
        EXPECT_TRUE(service.IsRunning());
        EXPECT_EQ(OrvikctlInForeground(L"inquiry 1").exitCode, 0u);
    }

    void ExpectCancelled() {
        console.PressCtrlC();
        EXPECT_EQ(console.WaitForEnd(), 4u);
        const Lines screen = console.Screen();
        EXPECT_EQ(screen.empty() ? "" : screen.back(), "orvikctl: error: cancelled");
        ExpectNoHarm();
    }

    TestConsole console;
};

TEST_F(OrvikctlOnConsole, BytesAreShownAsHexDump) {
    Start(L"raw -r 36 12 00 00 00 24 00");
    EXPECT_EQ(console.WaitForEnd(), 0u);
    EXPECT_EQ(console.Screen(),
              (Lines{"the camera returned 36 bytes",
                     "0000  00 80 04 02 1f 00 00 00 4f 72 76 69 6b 20 20 20  ........Orvik",
                     "0010  56 69 72 74 75 61 6c 20 43 61 6d 65 72 61 20 20  Virtual Camera",
                     "0020  46 30 31 20                                      F01"}));
}

TEST_F(OrvikctlOnConsole, BytesBeyondAsciiAreDotsInTheHexDump) {
    const std::byte bytes[] = {std::byte{0x1B}, std::byte{0x7F}, std::byte{0x80},
                               std::byte{0x9B}, std::byte{0xFF}, std::byte{0x0A},
                               std::byte{'~'},  std::byte{' '},  std::byte{'x'}};
    bus.WriteMemory(camera.Id(), 0, bytes);
    Start(L"raw -r 9 08 00 00 00 01 00");
    EXPECT_EQ(console.WaitForEnd(), 0u);
    EXPECT_EQ(console.Screen().at(1),
              "0000  1b 7f 80 9b ff 0a 7e 20 78                       ......~ x");
}

TEST_F(OrvikctlOnConsole, ReadShowsItsProgress) {
    StartHeldInBlocks(L"read -o " + Quoted(L"x"));
    bus.ReleaseAll(camera.Id());
    EXPECT_EQ(console.WaitForEnd(), 0u);
    const Lines screen = console.Screen();
    ASSERT_EQ(screen.size(), 2u) << testing::PrintToString(screen);
    EXPECT_TRUE(screen[0].starts_with("[" + std::string(40, '#') + "] 100 % ")) << screen[0];
    EXPECT_TRUE(screen[0].ends_with(" MB/s   0:00 left")) << screen[0];
    EXPECT_EQ(screen[1], "read 300 blocks from 0 on, 153600 bytes");
}

TEST_F(OrvikctlOnConsole, CtrlCEndsAReadAndLeavesNoFile) {
    StartHeldInBlocks(L"read -o " + Quoted(L"x"));
    ExpectCancelled();
    ExpectNoFiles();
}

TEST_F(OrvikctlOnConsole, CtrlCEndsAWrite) {
    MakeFile(L"x", Bytes(kBlocks * vcam::kBlockSize));
    StartHeldInBlocks(L"write -i " + Quoted(L"x"));
    ExpectCancelled();
}

TEST_F(OrvikctlOnConsole, CtrlCEndsACommand) {
    StartHeld(L"raw -r 36 -o " + Quoted(L"x") + L" 12 00 00 00 24 00", 1);
    ExpectCancelled();
    ExpectNoFiles();
}

TEST_F(OrvikctlOnConsole, CtrlCIsTheWayToEndAWatch) {
    Start(L"watch");
    service.Output().WaitFor("attached main communicator");
    console.PressCtrlC();
    EXPECT_EQ(console.WaitForEnd(), 0u);
    EXPECT_LE(console.Screen().size(), 1u) << testing::PrintToString(console.Screen());
    ExpectNoHarm();
}

TEST_F(OrvikctlOnConsole, CtrlCBeforeTheLinesHaveComeIsNoSuccess) {
    Start(L"watch --count 2");
    service.Output().WaitFor("attached main communicator");
    ExpectCancelled();
}

}  // namespace
}  // namespace system_test
