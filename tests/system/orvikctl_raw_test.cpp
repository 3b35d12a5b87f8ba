// orvikctl raw.

#include "orvikctl_fixture.h"
#include "raw_client.h"

namespace system_test {
namespace {

class OrvikctlRaw : public OrvikctlWithCamera {
protected:
    /// Runs it with files for its standard input and output, as the shell does for < and >.
    DWORD Redirected(const std::wstring& arguments, const std::filesystem::path& input,
                     const std::filesystem::path& output) const {
        const UniqueHandle in = OpenForChild(input, GENERIC_READ, OPEN_ALWAYS);
        const UniqueHandle out = OpenForChild(output, GENERIC_WRITE, CREATE_ALWAYS);
        return RunWith(kNoServerCheck + arguments, in.get(), out.get(), nullptr);
    }

    /// The first `size` bytes of the command that reached the camera last.
    Bytes LastCdb(std::size_t size = 8) const {
        constexpr std::size_t kCdbOffset = 36;  // in SCSI_PASS_THROUGH, 64 bits
        const Bytes block = camera.LastRequest().block;
        const auto start = block.begin() + kCdbOffset;
        return {start, start + static_cast<std::ptrdiff_t>(size)};
    }
};

Bytes BytesOf(std::initializer_list<int> values) {
    Bytes bytes;
    for (const int value : values)
        bytes.push_back(static_cast<std::byte>(value));
    return bytes;
}

TEST_F(OrvikctlRaw, BytesGoToAFileAsTheyAre) {
    // Line ends, the end of a text file, and everything else.
    EXPECT_EQ(Redirected(L"raw -r 1024 08 00 00 00 02 00", L"empty", L"redirected"), 0u);
    EXPECT_EQ(ContentOf(L"redirected"), Blocks(0, 2));
    const Result result =
        OrvikctlInForeground(L"raw -r 1024 -o " + Quoted(L"named") + L" 08 00 00 00 02 00");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.output, Lines{});
    EXPECT_EQ(result.errors, Lines{"the camera returned 1024 bytes"});
    EXPECT_EQ(ContentOf(L"named"), Blocks(0, 2));
}

TEST_F(OrvikctlRaw, NoMoreThanAskedForIsTaken) {
    const Result result =
        OrvikctlInForeground(L"raw -r 10 -o " + Quoted(L"x") + L" 08 00 00 00 01 00");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.errors,
              Lines{"the camera returned 512 bytes, of which the first 10 are kept"});
    EXPECT_EQ(ContentOf(L"x").size(), 10u);
}

TEST_F(OrvikctlRaw, BytesInJson) {
    const Json json = JsonOf(OrvikctlInForeground(L"raw -r 8 --json 12 00 00 00 24 00"));
    EXPECT_EQ(json.at("camera"), 1);
    EXPECT_EQ(json.at("bytes_received"), 8);
    EXPECT_EQ(json.at("data"), "008004021f000000");
    const Json toFile =
        JsonOf(OrvikctlInForeground(L"raw -r 8 --json 12 00 00 00 24 00 -o " + Quoted(L"x")));
    EXPECT_EQ(toFile.at("bytes_received"), 8);
    EXPECT_FALSE(toFile.contains("data"));
    EXPECT_EQ(ContentOf(L"x").size(), 8u);
}

TEST_F(OrvikctlRaw, CameraIsNamedByAnOption) {
    for (const wchar_t* const arguments :
         {L"raw -r 36 12 00 00 00 2a 00", L"raw --camera 1 -r 36 12 00 00 00 2a 00",
          L"raw 12 00 00 00 2A 00 -r 36 --camera 001"}) {
        OrvikctlInForeground(L"raw -n 00 00 00 00 00 00");  // so that the last one is another
        EXPECT_EQ(OrvikctlInForeground(arguments).exitCode, 0u) << ToUtf8(arguments);
        EXPECT_EQ(LastCdb(), BytesOf({0x12, 0, 0, 0, 0x2A, 0, 0, 0})) << ToUtf8(arguments);
    }
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"raw --camera 12 -n 00 00 00 00 00 00"), 6,
                       "there is no camera 12"));
}

TEST_F(OrvikctlRaw, CameraAsTheFirstWordIsAnErrorThatNamesTheOption) {
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"raw 12 -r 252 03 00 00 00 fc"), 2,
                       "the bytes of CDB must follow one another, without options between them. If "
                       "12 is the number of a camera, write --camera 12"));
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"raw 1 -n 00 00 00 00 00 00"), 2,
                       "CDB must consist of bytes of two hexadecimal digits each, not \"1\". If 1 "
                       "is the number of a camera, write --camera 1"));
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"raw -n 12 00 00 00 00 00 00"), 2,
                       "CDB has 7 bytes, but no SCSI command has. If 12 is the number of a camera, "
                       "write --camera 12"));
    // READ CAPACITY and commands of 12 and 16 bytes behind the number, all of zeros at the end.
    std::wstring words = L"raw -r 8 12 25";
    for (std::size_t length = 3; length <= 17; ++length) {
        words += L" 00";
        if (length != 9 && length != 11 && length < 13)
            continue;
        if (length == 16)
            continue;
        const std::string text =
            length == 17 ? "CDB must have 1 to 16 bytes, not 17"
                         : "CDB has " + std::to_string(length) + " bytes, but no SCSI command has";
        EXPECT_TRUE(Failed(OrvikctlInForeground(words), 2,
                           text + ". If 12 is the number of a camera, write --camera 12"));
    }
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"inquiry 1"), 2,
                       "the argument \"1\" is not expected. If it is the number of a camera, write "
                       "--camera 1"));
    EXPECT_EQ(camera.Counters().requests, 0u);
}

TEST_F(OrvikctlRaw, ZerosBeyondEightBytesAreLeftOut) {
    for (const wchar_t* const arguments :
         {L"raw -r 8 25 01 02 03 04 05 06 07 00 00",
          L"raw -r 8 25 01 02 03 04 05 06 07 00 00 00 00 00 00 00 00"}) {
        OrvikctlInForeground(L"raw -n 00 00 00 00 00 00");
        EXPECT_EQ(OrvikctlInForeground(arguments).exitCode, 0u) << ToUtf8(arguments);
        EXPECT_EQ(LastCdb(), BytesOf({0x25, 1, 2, 3, 4, 5, 6, 7})) << ToUtf8(arguments);
    }
    const std::uint64_t before = camera.Counters().requests;
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"raw -r 512 28 00 00 00 00 00 00 00 01 00"), 2,
                       "the service passes on only the first 8 bytes of a command: byte 9 of CDB, "
                       "01, would be lost. To do the same, use READ(6), 08"));
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"raw -n 35 00 00 00 00 00 00 00 00 80"), 2,
                       "the service passes on only the first 8 bytes of a command: byte 10 of CDB, "
                       "80, would be lost. To do the same, use a command of at most 8 bytes"));
    EXPECT_EQ(camera.Counters().requests, before);
}

TEST_F(OrvikctlRaw, RefusalIsExplainedBySenseData) {
    const std::string text =
        "the command failed on camera 1. Sense data: ILLEGAL REQUEST: INVALID COMMAND OPERATION "
        "CODE";
    const std::wstring unknown = L"raw -n ff 00 00 00 00 00";
    EXPECT_TRUE(Failed(OrvikctlInForeground(unknown), 8, text));
    const Json error = ErrorOf(OrvikctlInForeground(unknown + L" --json"));
    EXPECT_EQ(error.at("kind"), "refused");
    EXPECT_EQ(error.at("text"), text);
    EXPECT_EQ(error.at("sense").at("key"), 5);
    EXPECT_EQ(error.at("sense").at("code"), 0x20);
    EXPECT_EQ(error.at("sense").at("qualifier"), 0);
    EXPECT_EQ(error.at("sense").at("deferred"), false);
    EXPECT_EQ(error.at("sense").at("text"), "ILLEGAL REQUEST: INVALID COMMAND OPERATION CODE");
    EXPECT_TRUE(error.at("sense").at("data").get<std::string>().starts_with("700005000000000a"))
        << error;
    const std::uint64_t before = camera.Counters().requests;
    EXPECT_EQ(OrvikctlInForeground(unknown + L" --no-sense").errors,
              Lines{"orvikctl: error: the command failed on camera 1"});
    EXPECT_EQ(camera.Counters().requests, before + 1);
}

TEST_F(OrvikctlRaw, UnpluggedIsNotRefusedWhileAnotherProgramIsConnected) {
    EXPECT_TRUE(Failed(RunUnplugged(L"raw -n 00 00 00 00 00 00"), 10,
                       "camera 1 was unplugged, or given up, during the command"));
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlRaw, AllEightBytesOfACommandArrive) {
    EXPECT_EQ(OrvikctlInForeground(L"raw -r 8 25 01 02 03 04 05 06 07").exitCode, 0u);
    EXPECT_EQ(LastCdb(), BytesOf({0x25, 1, 2, 3, 4, 5, 6, 7}));
}

TEST_F(OrvikctlRaw, SendsAFile) {
    const Bytes block = Pattern(2 * vcam::kBlockSize, 11);
    MakeFile(L"x", block);
    const Result result =
        OrvikctlInForeground(L"raw -s 1024 -i " + Quoted(L"x") + L" 0a 00 00 03 02 00");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.output, Lines{});
    EXPECT_EQ(result.errors, Lines{"sent 1024 bytes"});
    EXPECT_EQ(bus.ReadMemory(camera.Id(), 3 * vcam::kBlockSize, 1024), block);
}

TEST_F(OrvikctlRaw, MoreThan64KiBAreSentOnlyIfAskedForByName) {
    const Bytes data = Pattern(130 * vcam::kBlockSize, 11);
    MakeFile(L"x", data);
    const std::wstring arguments = L"raw -s 66560 -i " + Quoted(L"x") + L" 0a 00 00 00 82 00";
    EXPECT_TRUE(Failed(OrvikctlInForeground(arguments), 2,
                       "--send must be at most 65536 without --allow-large, because "));
    EXPECT_EQ(camera.Counters().requests, 0u);

    // A host adapter as most are refuses it, and the service gives the camera up.
    EXPECT_TRUE(Failed(OrvikctlInForeground(arguments + L" --allow-large"), 10,
                       "camera 1 was unplugged, or given up, during the command"));
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"inquiry"), 6, "no camera is present"));
    EXPECT_TRUE(service.IsRunning());

    const PluggedCamera other(bus, WithTransferLimit(static_cast<std::uint32_t>(data.size())));
    service.Output().WaitFor("DeviceArrival: ", 2);
    EXPECT_EQ(OrvikctlInForeground(arguments + L" --allow-large").exitCode, 0u);
    EXPECT_EQ(bus.ReadMemory(other.Id(), 0, data.size()), data);
}

TEST_F(OrvikctlRaw, SendsStandardInput) {
    const Bytes block = Pattern(2 * vcam::kBlockSize, 11);
    MakeFile(L"x", block);
    EXPECT_EQ(Redirected(L"raw -s 512 0a 00 00 03 01 00", L"x", L"output"), 0u);
    EXPECT_EQ(bus.ReadMemory(camera.Id(), 3 * vcam::kBlockSize, 512),
              Bytes(block.begin(), block.begin() + 512));
}

TEST_F(OrvikctlRaw, InputThatIsTooShort) {
    MakeFile(L"x", Bytes(511));
    EXPECT_TRUE(
        Failed(OrvikctlInForeground(L"raw -s 512 -i " + Quoted(L"x") + L" 0a 00 00 03 01 00"), 1,
               "cannot send 512 bytes: " + ToUtf8((folder / L"x").wstring()) + " has only 511"));
    EXPECT_EQ(camera.Counters().requests, 0u);
}

TEST_F(OrvikctlRaw, CommandWithoutData) {
    const Result result = OrvikctlInForeground(L"raw -n 00 00 00 00 00 00");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.output, Lines{});
    EXPECT_EQ(result.errors, Lines{"command completed"});
    EXPECT_EQ(JsonOf(OrvikctlInForeground(L"raw -n --json 00 00 00 00 00 00")).at("camera"), 1);
}

TEST_F(OrvikctlRaw, FileThatCannotBeMadeKeepsTheCommandBack) {
    EXPECT_TRUE(
        Failed(OrvikctlInForeground(L"raw -r 36 -o " + Quoted(L"none/x") + L" 12 00 00 00 24 00"),
               1, "cannot create "));
    EXPECT_EQ(camera.Counters().requests, 0u);
}

TEST_F(OrvikctlRaw, TimeOutWhileACommandRunsSaysThatTheServiceIsBusy) {
    camera.Set(BlocksTheCaller(std::chrono::milliseconds(700)));
    EXPECT_TRUE(Failed(OrvikctlInForeground(L"raw -t 0.1 -n 00 00 00 00 00 00"), 7,
                       "camera 1 did not answer within 100 ms (--timeout): it is slow, or the "
                       "service is busy with a command of another program"));
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlRaw, CameraThatRefuses) {
    camera.Set(AnswersScsiStatus(2));
    EXPECT_TRUE(
        Failed(OrvikctlInForeground(L"raw -r 36 -o " + Quoted(L"x") + L" 12 00 00 00 24 00"), 8,
               "the command failed on camera 1. Sense data: not available: the command failed"));
    EXPECT_EQ(camera.Counters().requests, 2u) << "REQUEST SENSE was sent more than once";
    ExpectNoFiles();
    EXPECT_TRUE(service.IsRunning());
}

/// In the middle of a command.
class OrvikctlRawHeld : public OrvikctlRaw {
protected:
    OrvikctlRawHeld() { camera.Set(Holds()); }

    void WaitUntilHeld() { bus.WaitForPending(camera.Id(), 1, kDeadline); }
};

TEST_F(OrvikctlRawHeld, CameraThatNeverAnswers) {
    EXPECT_TRUE(
        Failed(OrvikctlInForeground(L"raw -t 0.1 -r 36 -o " + Quoted(L"x") + L" 12 00 00 00 24 00"),
               7, "camera 1 did not answer within 100 ms (--timeout)"));
    ExpectNoFiles();
    bus.ReleaseAll(camera.Id());
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlRawHeld, CameraUnplugged) {
    OrvikctlProgram program(kNoServerCheck + L"raw -n 00 00 00 00 00 00");
    WaitUntilHeld();
    camera.Unplug();
    EXPECT_TRUE(
        Failed(program.Finish(), 10, "camera 1 was unplugged, or given up, during the command"));
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlRawHeld, ServiceKilled) {
    OrvikctlProgram program(kNoServerCheck + L"raw -n 00 00 00 00 00 00");
    WaitUntilHeld();
    service.Stop();
    EXPECT_TRUE(Failed(program.Finish(), 9));
}

}  // namespace
}  // namespace system_test
