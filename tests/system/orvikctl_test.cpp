// orvikctl as it ships, with the real service and virtual cameras.

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "plugged_camera.h"
#include "service_fixture.h"

namespace system_test {
namespace {

using Bytes = std::vector<std::byte>;
using Lines = std::vector<std::string>;

/// What a run of orvikctl left.
struct Result {
    DWORD exitCode;
    Lines output;
    Lines errors;
};

Result Orvikctl(const std::wstring& arguments) {
    Program program(ProgramPath(L"orvikctl.exe"), arguments);
    const DWORD exitCode = program.WaitForEnd();
    return {exitCode, program.Output().WaitForEnd(), program.Errors().WaitForEnd()};
}

/// That a run failed with an exit code and one line that begins with `start`, and said nothing on
/// standard output.
testing::AssertionResult Failed(const Result& result, DWORD exitCode, const std::string& start) {
    if (result.exitCode == exitCode && result.output.empty() && result.errors.size() == 1 &&
        result.errors[0].starts_with("orvikctl: error: " + start))
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "exit code " << result.exitCode << ", output "
                                       << testing::PrintToString(result.output) << ", errors "
                                       << testing::PrintToString(result.errors);
}

Bytes ContentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream.is_open()) << file;
    const std::string text(std::istreambuf_iterator<char>(stream), {});
    const auto* const first = reinterpret_cast<const std::byte*>(text.data());
    return {first, first + text.size()};
}

/// Begins without service and with an empty folder for what is read.
class OrvikctlTest : public SystemTest {
protected:
    OrvikctlTest() : folder(std::filesystem::path(TestFolder()) / L"orvikctl_test.files") {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
    }
    ~OrvikctlTest() override { std::filesystem::remove_all(folder); }

    Result Read(const std::wstring& arguments, const std::filesystem::path& file) const {
        return Orvikctl(L"read " + arguments + L" -o \"" + (folder / file).wstring() + L"\"");
    }

    /// What lies in the folder.
    std::vector<std::filesystem::path> Files() const {
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            files.push_back(entry.path().filename());
        return files;
    }

    const std::filesystem::path folder;
};

/// With a camera of 300 blocks, each of them different, and the service in the foreground.
class OrvikctlWithCamera : public OrvikctlTest {
protected:
    static constexpr std::uint32_t kBlocks = 300;

    static vcam::PlugOptions Options() {
        vcam::PlugOptions options;
        options.blockCount = kBlocks;
        return options;
    }

    OrvikctlWithCamera() {
        for (std::size_t i = 0; i < content.size(); ++i)
            content[i] = static_cast<std::byte>(i * 7 + i / 512);
        bus.WriteMemory(camera.Id(), 0, content);
    }

    Bytes Blocks(std::size_t first, std::size_t count) const {
        const auto start = content.begin() + static_cast<std::ptrdiff_t>(first * vcam::kBlockSize);
        return {start, start + static_cast<std::ptrdiff_t>(count * vcam::kBlockSize)};
    }

    /// After a failure nothing remains, not even a part of the file.
    void ExpectNoFiles() const { EXPECT_EQ(Files(), std::vector<std::filesystem::path>{}); }

    Bytes content = Bytes(kBlocks * vcam::kBlockSize);
    PluggedCamera camera{bus, Options()};
    RunningService service;
};

TEST_F(OrvikctlTest, ServiceThatIsNotRunning) {
    for (const wchar_t* const arguments : {L"list", L"inquiry", L"inquiry 1", L"read -o x"}) {
        const Result result = Orvikctl(arguments);
        EXPECT_TRUE(Failed(result, 5, "the service is not running, its pipe is not there: "));
        EXPECT_TRUE(result.errors.at(0).ends_with(" (error 2)")) << result.errors.at(0);
    }
}

TEST_F(OrvikctlTest, WrongArguments) {
    for (const wchar_t* const arguments :
         {L"", L"nonsense", L"list 1", L"list --nonsense", L"inquiry x", L"inquiry -1",
          L"inquiry 4294967296", L"read", L"read -o", L"read --first x -o f",
          L"read --blocks 0 -o f", L"read 1 2 -o f"}) {
        const Result result = Orvikctl(arguments);
        EXPECT_EQ(result.exitCode, 2u) << testing::PrintToString(std::wstring(arguments));
        EXPECT_TRUE(result.output.empty());
        ASSERT_FALSE(result.errors.empty());
        EXPECT_TRUE(result.errors.at(0).starts_with("orvikctl: error: ")) << result.errors.at(0);
    }
}

TEST_F(OrvikctlTest, HelpGoesToStandardOutput) {
    for (const wchar_t* const arguments : {L"--help", L"list --help", L"read -h"}) {
        const Result result = Orvikctl(arguments);
        EXPECT_EQ(result.exitCode, 0u);
        EXPECT_FALSE(result.output.empty());
        EXPECT_TRUE(result.errors.empty());
    }
}

TEST_F(OrvikctlTest, NoCamera) {
    const RunningService service;
    const Result list = Orvikctl(L"list");
    EXPECT_EQ(list.exitCode, 0u);
    EXPECT_EQ(list.output, Lines{});
    EXPECT_EQ(list.errors, Lines{"no camera is present"});
    EXPECT_TRUE(Failed(Orvikctl(L"inquiry"), 6, "no camera is present"));
    EXPECT_TRUE(Failed(Orvikctl(L"inquiry 1"), 6, "there is no camera 1"));
    EXPECT_TRUE(Failed(Read(L"", L"x"), 6, "no camera is present"));
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlTest, OneOfTwoCamerasMustBeNamed) {
    vcam::PlugOptions other;
    other.product = "The other \xFF one";
    const PluggedCamera first(bus);
    const PluggedCamera second(bus, other);
    const RunningService service;
    EXPECT_EQ(Orvikctl(L"list").output, (Lines{"1", "2"}));
    EXPECT_TRUE(
        Failed(Orvikctl(L"inquiry"), 2, "several cameras are present, name one of them: 1 2"));
    EXPECT_EQ(Orvikctl(L"inquiry 1").output.at(1), "product:     Virtual Camera");
    EXPECT_EQ(Orvikctl(L"inquiry 2").output.at(1), "product:     The other ? one");
    EXPECT_TRUE(Failed(Orvikctl(L"inquiry 3"), 6, "there is no camera 3"));
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlWithCamera, Inquiry) {
    const Result result = Orvikctl(L"inquiry");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.output, (Lines{"vendor:      Orvik", "product:     Virtual Camera",
                                    "revision:    F01", "device type: 0", "removable:   yes"}));
    EXPECT_EQ(result.errors, Lines{});
}

TEST_F(OrvikctlWithCamera, ReadTakesTheWholeCamera) {
    const Result result = Read(L"", L"all.bin");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.output, Lines{});
    EXPECT_EQ(result.errors, Lines{"read 300 blocks from 0 on, 153600 bytes"});
    EXPECT_EQ(ContentOf(folder / L"all.bin"), content);
    EXPECT_EQ(Files().size(), 1u);
}

TEST_F(OrvikctlWithCamera, ReadTakesTheBlocksAskedFor) {
    EXPECT_EQ(Read(L"1 --first 7 --blocks 129", L"a").exitCode, 0u);
    EXPECT_EQ(ContentOf(folder / L"a"), Blocks(7, 129));
    EXPECT_EQ(Read(L"1 --first 299", L"b").exitCode, 0u);
    EXPECT_EQ(ContentOf(folder / L"b"), Blocks(299, 1));
    EXPECT_EQ(Read(L"--blocks 128", L"c").exitCode, 0u);
    EXPECT_EQ(ContentOf(folder / L"c"), Blocks(0, 128));
}

TEST_F(OrvikctlWithCamera, ReadBeyondTheEnd) {
    EXPECT_TRUE(Failed(Read(L"--first 300", L"x"), 1, "the camera has 300 blocks"));
    EXPECT_TRUE(Failed(Read(L"--first 299 --blocks 2", L"x"), 1, "the camera has 300 blocks"));
    EXPECT_TRUE(
        Failed(Read(L"--first 4294967295 --blocks 4294967295", L"x"), 1, "the camera has 300"));
    ExpectNoFiles();
}

TEST_F(OrvikctlWithCamera, FileNamesOutsideAscii) {
    const std::wstring name = L"B\u00E4r \u65E5\u672C \U0001F4F7.bin";
    EXPECT_EQ(Read(L"", name).exitCode, 0u);
    EXPECT_EQ(ContentOf(folder / name), content);
    EXPECT_TRUE(Failed(Read(L"", name + L"\\x"), 1, "cannot create "));
    EXPECT_NE(Read(L"", name + L"\\x").errors.at(0).find("B\xC3\xA4r \xE6\x97\xA5"),
              std::string::npos);
}

TEST_F(OrvikctlWithCamera, ReadReplacesAFileOnlyByACompleteOne) {
    std::ofstream(folder / L"x") << "as it was";
    camera.Set(AnswersScsiStatus(2));
    EXPECT_EQ(Read(L"", L"x").exitCode, 8u);
    EXPECT_EQ(ContentOf(folder / L"x").size(), 9u);
    camera.Set({});
    EXPECT_EQ(Read(L"", L"x").exitCode, 0u);
    EXPECT_EQ(ContentOf(folder / L"x"), content);
    EXPECT_EQ(Files().size(), 1u);
}

TEST_F(OrvikctlWithCamera, FolderThatIsNotThere) {
    const Result result = Read(L"", L"none/x");
    EXPECT_TRUE(Failed(result, 1, "cannot create "));
    EXPECT_TRUE(result.errors.at(0).ends_with("(error 3)")) << result.errors.at(0);
}

TEST_F(OrvikctlWithCamera, TargetThatIsAFolder) {
    std::filesystem::create_directory(folder / L"x");
    EXPECT_TRUE(Failed(Read(L"", L"x"), 1, "cannot create "));
    EXPECT_EQ(Files(), std::vector<std::filesystem::path>{L"x"});
}

TEST_F(OrvikctlWithCamera, CameraThatRefuses) {
    camera.Set(AnswersScsiStatus(2));
    EXPECT_TRUE(Failed(Orvikctl(L"inquiry"), 8, "the command failed on camera 1"));
    EXPECT_TRUE(Failed(Read(L"", L"x"), 8, "the command failed on camera 1"));
    ExpectNoFiles();
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlWithCamera, CameraThatReturnsLessThanItWasAskedFor) {
    vcam::Behaviour few;
    few.maximumDataBytes = 10;  // enough for READ CAPACITY
    camera.Set(few);
    EXPECT_TRUE(
        Failed(Orvikctl(L"inquiry"), 9, "the camera's INQUIRY data has 10 bytes instead of 36"));
    EXPECT_TRUE(
        Failed(Read(L"", L"x"), 9, "the camera returned 10 bytes for 128 blocks from 0 on"));
    few.maximumDataBytes = 7;
    camera.Set(few);
    EXPECT_TRUE(
        Failed(Read(L"", L"x"), 9, "the camera's READ CAPACITY data has 7 bytes instead of 8"));
    ExpectNoFiles();
}

/// A run of `orvikctl read` that waits in its first blocks, with its file begun.
class OrvikctlInTheMiddle : public OrvikctlWithCamera {
protected:
    OrvikctlInTheMiddle() {
        camera.Set(Holds());
        const std::uint64_t before = camera.Counters().requests;
        read.emplace(ProgramPath(L"orvikctl.exe"),
                     L"read -o \"" + (folder / L"x").wstring() + L"\"");
        bus.WaitFor(camera.Id(), vcam::Counter::kRequests, before + 1, kDeadline);
        bus.Release(camera.Id(), before + 1);  // READ CAPACITY
        bus.WaitForPending(camera.Id(), 3, kDeadline);
        EXPECT_EQ(Files().size(), 1u);
        EXPECT_NE(Files().at(0), L"x");
    }

    Result Finish() {
        const DWORD exitCode = read->WaitForEnd();
        return {exitCode, read->Output().WaitForEnd(), read->Errors().WaitForEnd()};
    }

    std::optional<Program> read;
};

TEST_F(OrvikctlInTheMiddle, FileGetsItsNameWhenItIsComplete) {
    bus.ReleaseAll(camera.Id());
    EXPECT_EQ(Finish().exitCode, 0u);
    EXPECT_EQ(ContentOf(folder / L"x"), content);
    EXPECT_EQ(Files().size(), 1u);
}

TEST_F(OrvikctlInTheMiddle, CameraUnplugged) {
    camera.Unplug();
    EXPECT_TRUE(Failed(Finish(), 8, "the camera failed to read 128 blocks from 0 on"));
    ExpectNoFiles();
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlInTheMiddle, ServiceKilled) {
    service.Stop();
    EXPECT_TRUE(Failed(Finish(), 9, "the service has closed the connection"));
    ExpectNoFiles();
}

TEST_F(OrvikctlInTheMiddle, Killed) {
    read->Terminate();
    ASSERT_EQ(Files().size(), 1u);
    EXPECT_EQ(Files().at(0).extension(), L".part");
}

}  // namespace
}  // namespace system_test
