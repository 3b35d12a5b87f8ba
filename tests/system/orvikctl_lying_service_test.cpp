// orvikctl against a service that is silent, leaves, or sends what makes no sense.

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "orvikctl_fixture.h"
#include "support/fake_service.h"
#include "test_console.h"

namespace system_test {
namespace {

using client_test::FakeService;
using client_test::Peer;
using client_test::Request;

constexpr auto npos = std::string::npos;

const std::string kNonsense = "the service sent an invalid message of type 77";

/// In place of an answer.
void SendNonsense(Peer& peer) {
    peer.Send({77, 1, 1, 5});
}

/// What READ CAPACITY returns.
Bytes CapacityOf(std::uint32_t blocks, std::uint32_t blockLength) {
    Bytes bytes;
    for (const std::uint32_t number : {blocks - 1, blockLength}) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<std::byte>(number >> shift));
    }
    return bytes;
}

/// What a command makes of a service that lies to it.
struct Command {
    std::string name;
    const wchar_t* arguments;  // with the name of a file behind them if they end in a blank
    bool asks;                 // for more than a connection
};

std::ostream& operator<<(std::ostream& stream, const Command& command) {
    return stream << command.name;
}

std::string NameOfCommand(const testing::TestParamInfo<Command>& info) {
    return info.param.name;
}

class OrvikctlLyingService : public OrvikctlTest {
protected:
    OrvikctlLyingService() { MakeFile(L"given", Bytes(1024)); }
    ~OrvikctlLyingService() override {
        EXPECT_EQ(Files(), std::vector<std::filesystem::path>{L"given"});
    }

    std::wstring Arguments(std::wstring arguments) const {
        if (arguments.ends_with(L' '))
            arguments += Quoted(arguments.ends_with(L"-i ") ? L"given" : L"made");
        return kNoServerCheck + arguments;
    }

    Result Run(const std::wstring& arguments) const { return Orvikctl(Arguments(arguments)); }

    static std::unique_ptr<FakeService> Play(std::function<void(Peer&)> script) {
        return std::make_unique<FakeService>(std::move(script), std::function<void(int)>(),
                                             kCameraPipeName);
    }
};

/// `status` and `list` report before they fail, and `watch` may have shown a camera.
testing::AssertionResult FailedOrReported(Result result, DWORD exitCode, const std::string& why) {
    const std::string pipe = "pipe          not reachable: " + why;
    const auto says = [&pipe](const std::string& line) { return line.starts_with(pipe); };
    if (result.output == Lines{"attached 1"} ||
        (result.output.size() == 1 && result.output[0].starts_with("1  no answer: " + why)))
        result.output.clear();
    if (!result.output.empty()) {
        if (std::none_of(result.output.begin(), result.output.end(), says))
            return testing::AssertionFailure() << result;
        result.output.clear();
    }
    return Failed(result, exitCode, why);
}

TEST_F(OrvikctlLyingService, ThatIsSilent) {
    const auto service = Play([](Peer& peer) { peer.ReadToTheEnd(); });
    OrvikctlProgram list(Arguments(L"list"));
    OrvikctlProgram status(Arguments(L"status"));
    EXPECT_TRUE(Failed(list.Finish(), 7, "the service did not answer in time"));
    const Result result = status.Finish();
    EXPECT_FALSE(result.output.empty());
    EXPECT_TRUE(FailedOrReported(result, 7, "the service did not answer in time"));
}

class OrvikctlCommand : public OrvikctlLyingService, public testing::WithParamInterface<Command> {
protected:
    Result Run() const { return OrvikctlLyingService::Run(GetParam().arguments); }

    /// Up to where the command under test waits for what it asks for.
    static void Begin(Peer& peer) {
        peer.Welcome({1});
        if (GetParam().asks)
            peer.ReadRequest();
    }
};
INSTANTIATE_TEST_SUITE_P(
    Each, OrvikctlCommand,
    testing::Values(Command{"list", L"list", true}, Command{"ping", L"ping", true},
                    Command{"status", L"status", true}, Command{"inquiry", L"inquiry", true},
                    Command{"read", L"read -o ", true}, Command{"write", L"write -i ", true},
                    Command{"raw", L"raw -r 36 12 00 00 00 24 00 -o ", true},
                    Command{"watch", L"watch", false}),
    NameOfCommand);

TEST_P(OrvikctlCommand, ServiceThatLeavesInsteadOfAWelcome) {
    const auto service = Play([](Peer& peer) { peer.ReadRequest(); });
    EXPECT_TRUE(FailedOrReported(Run(), 9, "the service has closed the connection"));
}

TEST_P(OrvikctlCommand, NonsenseInsteadOfAWelcome) {
    const auto service = Play([](Peer& peer) {
        peer.ReadRequest();
        SendNonsense(peer);
        peer.ReadToTheEnd();
    });
    EXPECT_TRUE(FailedOrReported(Run(), 9, kNonsense));
}

TEST_P(OrvikctlCommand, ServiceThatLeavesInsteadOfAnAnswer) {
    const auto service = Play(Begin);
    const Result result = Run();
    EXPECT_TRUE(FailedOrReported(result, 9, "the service has closed the connection"));
    // So it looks when the service cannot open the camera.
    const bool usesCamera =
        std::string("list inquiry read write raw").find(GetParam().name) != npos;
    EXPECT_EQ(result.errors.back().find("another program") != npos, usesCamera) << result;
}

TEST_P(OrvikctlCommand, NonsenseInsteadOfAnAnswer) {
    const auto service = Play([](Peer& peer) {
        Begin(peer);
        SendNonsense(peer);
        peer.ReadToTheEnd();
    });
    // The event that ends a watch has no words.
    const bool events = GetParam().name == "watch";
    EXPECT_TRUE(
        FailedOrReported(Run(), 9, events ? "the service has closed the connection" : kNonsense));
}

/// Blocks of which only one fits into a command.
constexpr std::uint32_t kLongBlock = 40'000;

TEST_F(OrvikctlLyingService, ThatLeavesInTheMiddleOfARead) {
    const auto service = Play([](Peer& peer) {
        peer.Welcome({1});
        peer.Succeed(peer.ReadRequest(), CapacityOf(2, kLongBlock));
        peer.Succeed(peer.ReadRequest(), Bytes(kLongBlock));
        peer.ReadRequest();
    });
    const Result result = Run(L"read --outstanding 1 -o ");
    EXPECT_TRUE(Failed(result, 9, "the service has closed the connection"));
    EXPECT_EQ(result.errors.back().find("another program"), npos) << result;  // camera was open
}

TEST_F(OrvikctlLyingService, ThatLeavesInTheMiddleOfAWrite) {
    const auto service = Play([](Peer& peer) {
        peer.Welcome({1});
        peer.Succeed(peer.ReadRequest(), CapacityOf(2, 512));
        peer.ReadRequest();
    });
    const Result result = Run(L"write -i ");
    EXPECT_TRUE(Failed(result, 9, "the service has closed the connection"));
    EXPECT_EQ(result.errors.at(0), "confirmed written: 0 blocks starting at block 0");
}

TEST_F(OrvikctlLyingService, CameraThatGoesBetweenTwoCommandsOfARead) {
    const auto service = Play([](Peer& peer) {
        peer.Welcome({1});
        peer.Succeed(peer.ReadRequest(), CapacityOf(2, kLongBlock));
        const Request read = peer.ReadRequest();
        Bytes answer = HeaderBytes({kTransferSucceeded, read.header.requestId, 1, kLongBlock});
        answer.resize(answer.size() + kLongBlock);
        const Bytes detached = HeaderBytes({kCameraDetached, kNotificationId, 1, 0});
        answer.insert(answer.end(), detached.begin(), detached.end());
        peer.Send(answer);
        peer.ReadToTheEnd();
    });
    EXPECT_TRUE(
        Failed(Run(L"read --outstanding 1 -t 5 -o "), 10,
               "the camera was unplugged before the command for 1 block starting at block 1"));
}

/// A camera that refuses a command. The next connection is that for the sense data.
class OrvikctlRefusal : public OrvikctlLyingService {
protected:
    /// Announces the camera to the first `most` clients. `later` is called for each client after
    /// the first one, with its number.
    static std::unique_ptr<FakeService> PlayRefusal(int most,
                                                    const std::function<void(Peer&, int)>& later) {
        auto welcomed = std::make_shared<std::atomic<int>>(0);
        return std::make_unique<FakeService>(
            [=](Peer& peer) {
                const int number = *welcomed + 1;
                if (number <= most)
                    peer.Announce(1);
                const std::optional<Request> roundTrip = peer.NextRequest();
                if (!roundTrip)
                    return;  // only opened and closed
                ++*welcomed;
                peer.Refuse(*roundTrip);
                if (number == 1)
                    peer.Refuse(peer.ReadRequest());
                else
                    later(peer, number);
                peer.ReadToTheEnd();
            },
            std::function<void(int)>(), kCameraPipeName, FakeService::kEveryClient);
    }

    Result RunRaw() const { return Run(L"raw --json -n ff 00 00 00 00 00"); }
};

TEST_F(OrvikctlRefusal, SenseDataThatCannotBeDecodedIsKept) {
    const Bytes otherFormat(18, std::byte{0x7F});
    for (const Bytes& data : {otherFormat, Bytes(4)}) {
        const auto service =
            PlayRefusal(2, [&](Peer& peer, int) { peer.Succeed(peer.ReadRequest(), data); });
        const Json error = ErrorOf(RunRaw());
        EXPECT_EQ(error.at("exit_code"), 8);
        EXPECT_TRUE(error.at("text").get<std::string>().starts_with(
            "the command failed on camera 1. Sense data: cannot be decoded: the camera's sense "
            "data has "))
            << error;
        const std::string hex =
            data.size() == 4 ? "00000000" : "7f7f7f7f7f7f7f7f7f7f7f7f7f7f7f7f7f7f";
        EXPECT_EQ(error.at("sense"), (Json{{"data", hex}}));
    }
}

TEST_F(OrvikctlRefusal, SenseDataThatNeverComes) {
    const auto service = PlayRefusal(2, [](Peer& peer, int) { peer.ReadRequest(); });
    const Json error = ErrorOf(RunRaw());
    EXPECT_EQ(error.at("text"),
              "the command failed on camera 1. Sense data: not available: camera 1 did not answer "
              "REQUEST SENSE within 5000 ms");
    EXPECT_FALSE(error.contains("sense"));
}

TEST_F(OrvikctlRefusal, RemovalThatTheServiceReportsLate) {
    const auto service = PlayRefusal(3, [](Peer& peer, int number) {
        if (number == 2)
            peer.Refuse(peer.ReadRequest());
    });
    const Json error = ErrorOf(RunRaw());
    EXPECT_EQ(error.at("kind"), "camera gone");
    EXPECT_EQ(error.at("exit_code"), 10);
}

TEST_F(OrvikctlLyingService, CameraWhoseBlocksAreTooLargeForOneCommand) {
    const auto service = Play([](Peer& peer) {
        peer.Welcome({1});
        peer.Succeed(peer.ReadRequest(), CapacityOf(2, 65'537));
        peer.ReadToTheEnd();
    });
    EXPECT_TRUE(Failed(Run(L"read -o "), 1,
                       "a block of the camera has 65537 bytes, but one command can transfer only "
                       "65536"));
}

/// READ(6) and WRITE(6) reach the first 2^21 blocks.
TEST_F(OrvikctlLyingService, CameraWithMoreBlocksThanCanBeReached) {
    for (const wchar_t* const arguments :
         {L"read -o ", L"read --first 2097151 --blocks 2 -o ", L"write --first 2097151 -i "}) {
        const auto service = Play([](Peer& peer) {
            peer.Welcome({1});
            peer.Succeed(peer.ReadRequest(), CapacityOf((1U << 21) + 1, 512));
            peer.ReadToTheEnd();
        });
        EXPECT_TRUE(
            Failed(Run(arguments), 1,
                   "the camera has 2097153 blocks, but READ(6) and WRITE(6) reach only the first "
                   "2097152"));
    }
}

/// More bytes than the disk has.
TEST_F(OrvikctlLyingService, CameraThatIsLargerThanTheDisk) {
    constexpr std::uint32_t kBlocks = 1U << 21;
    constexpr std::uint32_t kBlockLength = 65'536;
    ULARGE_INTEGER available{};
    ASSERT_TRUE(::GetDiskFreeSpaceExW(folder.c_str(), &available, nullptr, nullptr));
    if (available.QuadPart > std::uint64_t{kBlocks} * kBlockLength)
        GTEST_SKIP() << "the disk has more space than READ(6) reaches";
    const auto service = Play([](Peer& peer) {
        peer.Welcome({1});
        peer.Succeed(peer.ReadRequest(), CapacityOf(kBlocks, kBlockLength));
        EXPECT_TRUE(peer.ReadToTheEnd().empty()) << "a block was read";
    });
    const Result result = Run(L"read -o ");
    EXPECT_TRUE(Failed(result, 1, "cannot write 137438953472 bytes, because only "));
    EXPECT_TRUE(result.errors.back().ends_with("(error 112)")) << result;
}

/// The command block of a request, up to the control byte of a 6-byte command.
Bytes Cdb6Of(const Request& request) {
    return {request.body.begin(),
            request.body.begin() + std::min<std::ptrdiff_t>(6, std::ssize(request.body))};
}

/// READ(6) or WRITE(6).
Bytes Cdb6(int operation, std::uint32_t block, int count) {
    return {static_cast<std::byte>(operation),  static_cast<std::byte>(block >> 16),
            static_cast<std::byte>(block >> 8), static_cast<std::byte>(block),
            static_cast<std::byte>(count),      std::byte{}};
}

TEST_F(OrvikctlLyingService, LastBlocksThatCanBeReached) {
    const auto play = [](const Bytes& cdb, const Bytes& answer) {
        return Play([=](Peer& peer) {
            peer.Welcome({1});
            peer.Succeed(peer.ReadRequest(), CapacityOf(1U << 21, 512));
            const Request request = peer.ReadRequest();
            EXPECT_EQ(Cdb6Of(request), cdb);
            peer.Succeed(request, answer);
            peer.ReadToTheEnd();
        });
    };
    {
        const auto service = play(Cdb6(0x08, 0x1FFFFF, 1), Bytes(512));
        EXPECT_EQ(Run(L"read --first 2097151 -o ").exitCode, 0u);
        EXPECT_EQ(ContentOf(L"made").size(), 512u);
        std::filesystem::remove(folder / L"made");
    }
    const auto service = play(Cdb6(0x0A, 0x1FFFFE, 2), {});
    EXPECT_EQ(Run(L"write --first 2097150 -i ").exitCode, 0u);
}

/// 64 KiB would hold 512 of these blocks, but READ(6) and WRITE(6) have one byte for the number.
TEST_F(OrvikctlLyingService, CommandsForSmallBlocksHaveAtMost255) {
    constexpr std::uint32_t kSmall = 128;
    const auto play = [](int operation, std::uint32_t bytesPerBlock) {
        return Play([=](Peer& peer) {
            peer.Welcome({1});
            peer.Succeed(peer.ReadRequest(), CapacityOf(600, kSmall));
            std::uint32_t first = 0;
            for (const int count : {255, 255, 90}) {
                const Request request = peer.ReadRequest();
                EXPECT_EQ(Cdb6Of(request), Cdb6(operation, first, count));
                peer.Succeed(request, Bytes(static_cast<std::size_t>(count) * bytesPerBlock));
                first += static_cast<std::uint32_t>(count);
            }
            peer.ReadToTheEnd();
        });
    };
    {
        const auto service = play(0x08, kSmall);
        EXPECT_EQ(Run(L"read -o ").exitCode, 0u);
        EXPECT_EQ(ContentOf(L"made").size(), 600u * kSmall);
        std::filesystem::remove(folder / L"made");
    }
    MakeFile(L"given", Bytes(std::size_t{600} * kSmall));
    const auto service = play(0x0A, 0);
    EXPECT_EQ(Run(L"write -i ").exitCode, 0u);
}

/// One instance of the pipe, which another client has.
TEST_F(OrvikctlLyingService, ThatIsBusy) {
    const UniqueHandle pipe = OwnFile(::CreateNamedPipeW(
        kCameraPipeName, PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 4096, 4096, 0, nullptr));
    ASSERT_TRUE(pipe);
    const UniqueHandle other = OwnFile(::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE,
                                                     0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(other);
    OrvikctlProgram list(Arguments(L"list"));
    OrvikctlProgram status(Arguments(L"status"));
    const Result result = list.Finish();
    EXPECT_TRUE(Failed(result, 5)) << result;
    EXPECT_TRUE(result.errors.at(0).ends_with("(error 231)")) << result;
    EXPECT_EQ(status.Finish().exitCode, 5u);
}

/// Ctrl-C while the command waits for a service that is silent.
class OrvikctlSilentService : public OrvikctlLyingService {
protected:
    /// Returns when the service has begun to be silent.
    void Start(const std::wstring& arguments, std::function<void(Peer&)> untilThen) {
        const UniqueHandle silent(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        service = Play([script = std::move(untilThen), event = silent.get()](Peer& peer) {
            script(peer);
            ::SetEvent(event);
            peer.ReadToTheEnd();
        });
        console.Start(ProgramPath(L"orvikctl.exe"), kNoServerCheck + arguments);
        const Deadline deadline;
        ASSERT_EQ(::WaitForSingleObject(silent.get(), deadline.MillisecondsLeft()), WAIT_OBJECT_0);
    }

    void StartPing() {
        Start(L"ping", [](Peer& peer) {
            peer.Welcome({1});
            peer.ReadRequest();
        });
    }

    void ExpectCancelled() {
        console.PressCtrlC();
        EXPECT_EQ(console.WaitForEnd(), 4u);
        EXPECT_EQ(console.Screen(), Lines{"orvikctl: error: cancelled"});
    }

    std::unique_ptr<FakeService> service;
    TestConsole console;
};

TEST_F(OrvikctlSilentService, CtrlCWhileItConnects) {
    Start(L"status", [](Peer& peer) { peer.ReadRequest(); });
    ExpectCancelled();
}

TEST_F(OrvikctlSilentService, CtrlCDuringARoundTrip) {
    StartPing();
    ExpectCancelled();
}

TEST_F(OrvikctlSilentService, AnotherCtrlCEndsItAtOnce) {
    // Two events in quick succession may be delivered as one.
    const auto exitCodeAfterCtrlC = [this] {
        const UniqueHandle ended(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        std::thread finger([this, event = ended.get()] {
            do
                console.PressCtrlC();
            while (::WaitForSingleObject(event, 50) == WAIT_TIMEOUT);
        });
        const DWORD exitCode = console.WaitForEnd();
        ::SetEvent(ended.get());
        finger.join();
        return exitCode;
    };
    StartPing();
    const DWORD exitCode = exitCodeAfterCtrlC();
    EXPECT_EQ(console.Screen(), Lines{});
    // The system's own handler has ended the process. Its exit code is the system's choice.
    const UniqueHandle ready(::CreateEventW(nullptr, TRUE, FALSE, L"orvikctl_test ready"));
    console.Start(TestFolder() + L"\\waiting_program.exe", L"\"orvikctl_test ready\"");
    const Deadline deadline;
    ASSERT_EQ(::WaitForSingleObject(ready.get(), deadline.MillisecondsLeft()), WAIT_OBJECT_0);
    EXPECT_EQ(exitCode, exitCodeAfterCtrlC());
}

}  // namespace
}  // namespace system_test
