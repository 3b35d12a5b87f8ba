// orvikctl on a console: what it shows there, and Ctrl-C.

#include <algorithm>
#include <chrono>
#include <optional>
#include <regex>
#include <string>

#include "orvikctl_fixture.h"
#include "test_console.h"

namespace system_test {
namespace {

class OrvikctlOnConsole : public OrvikctlWithCamera {
protected:
    using OrvikctlWithCamera::OrvikctlWithCamera;

    void Start(const std::wstring& arguments) {
        console.Start(ProgramPath(L"orvikctl.exe"), kNoServerCheck + arguments);
    }

    /// Starts it and waits until the camera holds `pending` commands.
    void StartHeld(const std::wstring& arguments, std::uint32_t pending) {
        camera.Set(Holds());
        Start(arguments);
        bus.WaitForPending(camera.Id(), pending, kDeadline);
    }
    /// For read and write: READ CAPACITY comes first, then `pending` commands, 3 for the whole
    /// camera.
    void StartHeldInBlocks(const std::wstring& arguments, std::uint32_t pending = 3) {
        StartHeld(arguments, 1);
        bus.ReleaseAll(camera.Id());
        bus.WaitForPending(camera.Id(), pending, kDeadline);
    }

    /// That the service still runs and the camera answers.
    void ExpectNoHarm() {
        bus.ReleaseAll(camera.Id());
        camera.Set({});
        EXPECT_TRUE(service.IsRunning());
        EXPECT_EQ(OrvikctlInForeground(L"inquiry --camera 1").exitCode, 0u);
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

TEST_F(OrvikctlOnConsole, LongHexDumpIsShownToItsEnd) {
    Start(L"raw -r 65536 08 00 00 00 80 00");
    EXPECT_EQ(console.WaitForEnd(), 0u);
    const Lines screen = console.Screen();
    ASSERT_FALSE(screen.empty());
    std::string last = "fff0  ";
    for (const std::byte byte : Bytes(content.begin() + 0xFFF0, content.begin() + 0x10000)) {
        constexpr char kDigits[] = "0123456789abcdef";
        last += kDigits[std::to_integer<int>(byte >> 4)];
        last += kDigits[std::to_integer<int>(byte & std::byte{15})];
        last += ' ';
    }
    EXPECT_TRUE(screen.back().starts_with(last)) << screen.back();
}

TEST_F(OrvikctlOnConsole, ReadShowsItsProgress) {
    StartHeldInBlocks(L"read -o " + Quoted(L"x"));
    bus.ReleaseAll(camera.Id());
    EXPECT_EQ(console.WaitForEnd(), 0u);
    const Lines screen = console.Screen();
    ASSERT_EQ(screen.size(), 2u) << testing::PrintToString(screen);
    EXPECT_TRUE(screen[0].starts_with("[" + std::string(40, '#') + "] 100 % ")) << screen[0];
    EXPECT_TRUE(screen[0].ends_with(" MB/s   0:00 left")) << screen[0];
    EXPECT_EQ(screen[1], "read 300 blocks starting at block 0, 153600 bytes");
}

/// With so many blocks that one command carries a small part of them.
class OrvikctlOnConsoleForLong : public OrvikctlOnConsole {
protected:
    static constexpr std::uint32_t kManyBlocks = 65'536;
    OrvikctlOnConsoleForLong() : OrvikctlOnConsole(kManyBlocks) {}
};

TEST_F(OrvikctlOnConsoleForLong, ReadShowsWhenItWillBeDone) {
    const auto before = std::chrono::steady_clock::now();
    StartHeldInBlocks(L"read -o " + Quoted(L"x"), 1);
    const auto begun = std::chrono::steady_clock::now();
    bus.WaitForPending(camera.Id(), 4, kDeadline);
    const std::uint64_t first = camera.Counters().requests - 3;
    const std::chrono::duration<double> shortest = std::chrono::steady_clock::now() - begun;
    bus.Release(camera.Id(), first);
    // It shows how far it is before it starts the next one.
    bus.WaitFor(camera.Id(), vcam::Counter::kRequests, first + 4, kDeadline);
    const std::string line = console.Screen().at(0);
    const std::chrono::duration<double> longest = std::chrono::steady_clock::now() - before;

    static const std::regex kLine(
        R"(\[\.{40}\]   0 % +([0-9]+\.[0-9]) MB/s +([0-9]+):([0-9]{2}) left)");
    std::smatch numbers;
    ASSERT_TRUE(std::regex_match(line, numbers, kLine)) << line;
    const double rate = std::stod(numbers[1]);                               // to 0.05
    const double left = std::stod(numbers[2]) * 60 + std::stod(numbers[3]);  // rounded up
    EXPECT_LT(std::stoi(numbers[3]), 60) << line;
    constexpr double kDone = 128 * 512 / 1e6;
    constexpr double kRest = kManyBlocks * 512 / 1e6 - kDone;
    EXPECT_GE(left * (rate + 0.05), kRest) << line;
    EXPECT_LE((left - 1) * (rate - 0.05), kRest) << line;
    EXPECT_GE((rate + 0.05) * longest.count(), kDone) << line;
    EXPECT_LE((rate - 0.05) * shortest.count(), kDone) << line;

    ExpectCancelled();
    ExpectNoFiles();
}

TEST_F(OrvikctlOnConsole, CtrlCEndsAReadAndLeavesNoFile) {
    StartHeldInBlocks(L"read -o " + Quoted(L"x"));
    ExpectCancelled();
    ExpectNoFiles();
}

TEST_F(OrvikctlOnConsole, ClosingTheWindowEndsAReadCleanlyAndLeavesNoFile) {
    StartHeldInBlocks(L"read -o " + Quoted(L"x"));
    console.CloseWindow();
    EXPECT_EQ(console.WaitForEnd(), 4u);
    ExpectNoFiles();
    ExpectNoHarm();
}

TEST_F(OrvikctlOnConsole, CtrlCEndsAWrite) {
    MakeFile(L"x", Bytes(kBlocks * vcam::kBlockSize));
    StartHeldInBlocks(L"write -i " + Quoted(L"x"));
    ExpectCancelled();
}

TEST_F(OrvikctlOnConsole, CtrlCEndsAnInquiry) {
    StartHeld(L"inquiry", 1);
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
