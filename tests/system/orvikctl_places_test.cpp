// orvikctl read and write: checks of the place before the first block, standard streams, NUL,
// comparisons, and progress for programs.

#include <chrono>
#include <optional>

#include "orvikctl_fixture.h"

namespace system_test {
namespace {

class OrvikctlPlaces : public OrvikctlWithCamera {
protected:
    Result Read(const std::wstring& arguments) const {
        return OrvikctlInForeground(L"read " + arguments);
    }
    Result Write(const std::wstring& arguments) const {
        return OrvikctlInForeground(L"write " + arguments);
    }

    /// Runs it with files for its standard streams, as the shell does for <, > and 2>; its errors
    /// are in the file "errors".
    DWORD Redirected(const std::wstring& arguments, const std::filesystem::path& input,
                     const std::filesystem::path& output) const {
        const UniqueHandle in = OpenForChild(input, GENERIC_READ, OPEN_ALWAYS);
        const UniqueHandle out = OpenForChild(output, GENERIC_WRITE, CREATE_ALWAYS);
        const UniqueHandle errors = OpenForChild(L"errors", GENERIC_WRITE, CREATE_ALWAYS);
        return RunWith(kNoServerCheck + arguments, in.get(), out.get(), errors.get());
    }

    std::string Errors() const {
        const Bytes bytes = ContentOf(L"errors");
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
};

TEST_F(OrvikctlPlaces, OutputThatCannotBeMadeIsRefusedBeforeACommand) {
    std::filesystem::create_directory(folder / L"folder");
    MakeFile(L"read-only", Bytes(9));
    ::SetFileAttributesW((folder / L"read-only").c_str(), FILE_ATTRIBUTE_READONLY);
    const auto name = [this](const wchar_t* file) { return ToUtf8((folder / file).wstring()); };
    EXPECT_TRUE(Failed(Read(L"-o " + Quoted(L"folder")), 1,
                       "cannot create " + name(L"folder") + ": it is a folder"));
    EXPECT_TRUE(
        Failed(Read(L"-o " + Quoted(L"read-only")), 1,
               "cannot create " + name(L"read-only") + ": a file of this name exists, and is "));
    EXPECT_TRUE(
        Failed(Read(L"-o " + Quoted(L"ab:c")), 1,
               "cannot create " + name(L"ab:c") + ": the name of a file must not contain a colon"));
    EXPECT_TRUE(Failed(Read(L"-o CON"), 1, "cannot create CON: it is a device"));
    EXPECT_TRUE(Failed(Read(L"-o " + Quoted(L"none/x")), 1, "cannot create "));
    EXPECT_TRUE(Failed(Read(L"-o " + Quoted(std::wstring(300, L'x'))), 1, "cannot create "));
    EXPECT_EQ(camera.Counters().requests, 0u);
    EXPECT_EQ(Files().size(), 2u);
    ::SetFileAttributesW((folder / L"read-only").c_str(), FILE_ATTRIBUTE_NORMAL);
}

TEST_F(OrvikctlPlaces, ReadToStandardOutput) {
    EXPECT_EQ(Redirected(L"read -o -", L"input", L"output"), 0u) << Errors();
    EXPECT_EQ(ContentOf(L"output"), content);
    EXPECT_EQ(Errors(), "read 300 blocks starting at block 0, 153600 bytes\r\n");
    EXPECT_TRUE(Failed(Read(L"-o - --no-sense x"), 2));
    EXPECT_EQ(ErrorOf(Read(L"-o - --json")).at("text"),
              "--output - cannot be combined with --json, which uses standard output");
    EXPECT_EQ(Redirected(L"raw -r 1024 -o - 08 00 00 00 02 00", L"input", L"output"), 0u);
    EXPECT_EQ(ContentOf(L"output"), Blocks(0, 2));
}

TEST_F(OrvikctlPlaces, ReadToNulMeasures) {
    for (const wchar_t* const name : {L"NUL", L"nul"}) {
        const Result result = Read(std::wstring(L"-o ") + name);
        EXPECT_EQ(result.exitCode, 0u) << result;
        ASSERT_EQ(result.errors.size(), 1u) << result;
        EXPECT_TRUE(result.errors[0].starts_with(
            "read 300 blocks starting at block 0, 153600 bytes, in 0."))
            << result;
        EXPECT_TRUE(result.errors[0].ends_with(" MB/s")) << result;
    }
    const Json json = JsonOf(Read(L"-o NUL --json"));
    EXPECT_EQ(json.at("bytes"), 153600);
    EXPECT_GT(json.at("seconds").get<double>(), 0);
    EXPECT_LT(json.at("seconds").get<double>(), 30);
    ExpectNoFiles();
}

TEST_F(OrvikctlPlaces, WriteFromStandardInput) {
    const Bytes part = Pattern(130 * vcam::kBlockSize, 11);
    MakeFile(L"input", part);
    EXPECT_EQ(Redirected(L"write -i - --first 7 --verify", L"input", L"output"), 0u) << Errors();
    EXPECT_EQ(Errors(), "wrote 130 blocks starting at block 7, 66560 bytes, and verified them\r\n");
    Bytes expected = content;
    std::copy(part.begin(), part.end(), expected.begin() + 7 * vcam::kBlockSize);
    EXPECT_EQ(Memory(), expected);
    MakeFile(L"input", Bytes(513));
    EXPECT_EQ(Redirected(L"write -i -", L"input", L"output"), 1u);
    EXPECT_TRUE(Errors().starts_with("orvikctl: error: the size of standard input is 513 bytes"))
        << Errors();
    EXPECT_EQ(Memory(), expected);
    MakeFile(L"input", part);
    EXPECT_EQ(Redirected(L"raw -s 512 -i - 0a 00 00 00 01 00", L"input", L"output"), 0u);
}

TEST_F(OrvikctlPlaces, CompareFindsTheFirstDifference) {
    Bytes other = Blocks(7, 200);
    MakeFile(L"x", other);
    const std::wstring compare = L"--first 7 --compare " + Quoted(L"x");
    const Result same = Read(compare);
    EXPECT_EQ(same.exitCode, 0u) << same;
    EXPECT_EQ(same.errors,
              Lines{"compared 200 blocks starting at block 7, 102400 bytes: no difference"});
    other[130 * 512 + 3] ^= std::byte{0xFF};
    other[131 * 512] ^= std::byte{0xFF};
    MakeFile(L"x", other);
    static constexpr char kDigits[] = "0123456789abcdef";
    const auto hex = [](std::byte byte) {
        return std::string{kDigits[std::to_integer<int>(byte >> 4)],
                           kDigits[std::to_integer<int>(byte & std::byte{15})]};
    };
    EXPECT_TRUE(Failed(Read(compare), 1,
                       ToUtf8((folder / L"x").wstring()) +
                           " and the camera differ. The first difference: byte 66563 of the file "
                           "is " +
                           hex(other[66563]) + ", byte 3 of block 137 of the camera is " +
                           hex(content[137 * 512 + 3])));
    EXPECT_EQ(Memory(), content);
    EXPECT_EQ(Files().size(), 1u);
    EXPECT_TRUE(
        Failed(Read(compare + L" --blocks 3"), 2, "--blocks cannot be combined with --compare"));
    EXPECT_TRUE(
        Failed(Read(compare + L" -o y"), 2, "exactly one of --output and --compare must be given"));
}

TEST_F(OrvikctlPlaces, VerifyFindsWhatTheCameraHasNotKept) {
    MakeFile(L"x", Pattern(2 * vcam::kBlockSize, 11));
    camera.Set(Holds());
    OrvikctlProgram write(kNoServerCheck + L"write --verify -i " + Quoted(L"x"));
    const std::uint64_t before = camera.Counters().requests;
    bus.WaitFor(camera.Id(), vcam::Counter::kRequests, before + 1, kDeadline);
    bus.Release(camera.Id(), before + 1);  // READ CAPACITY
    bus.WaitFor(camera.Id(), vcam::Counter::kRequests, before + 2, kDeadline);
    bus.Release(camera.Id(), before + 2);  // the write
    bus.WaitFor(camera.Id(), vcam::Counter::kRequests, before + 3, kDeadline);
    bus.WriteMemory(camera.Id(), 513, Bytes{std::byte{0xEE}});
    bus.Release(camera.Id(), before + 3);  // the read
    const Result result = write.Finish();
    EXPECT_TRUE(Failed(result, 1, ToUtf8((folder / L"x").wstring()) + " and the camera differ."));
    EXPECT_NE(result.errors.back().find("byte 513 of the file is "), std::string::npos) << result;
    EXPECT_TRUE(result.errors.back().ends_with("byte 1 of block 1 of the camera is ee")) << result;
    EXPECT_EQ(result.errors.front(), "confirmed written: 2 blocks starting at block 0");
}

/// The steps that the progress on standard error shows to their end, in order.
Lines FinishedSteps(const Result& result) {
    EXPECT_EQ(result.exitCode, 0u) << result;
    Lines steps;
    for (const std::string& line : result.errors) {
        const Json progress = Json::parse(line).at("progress");
        if (progress.at("bytes") == progress.at("total"))
            steps.push_back(progress.at("step"));
    }
    return steps;
}

TEST_F(OrvikctlPlaces, ProgressForProgramsNamesTheStep) {
    const auto steps = [this](const std::wstring& command) {
        return FinishedSteps(
            OrvikctlInForeground(command + L" " + Quoted(L"x") + L" --json --progress json"));
    };
    EXPECT_EQ(steps(L"read -o"), Lines{"read"});
    EXPECT_EQ(steps(L"read --compare"), Lines{"compare"});
    EXPECT_EQ(steps(L"write -i"), Lines{"write"});
    EXPECT_EQ(steps(L"write --verify -i"), (Lines{"write", "verify"}));
}

TEST_F(OrvikctlPlaces, ProgressForProgramsGoesOnWhileTheCameraIsSilent) {
    camera.Set(Holds());
    OrvikctlProgram read(kNoServerCheck + L"read --progress json -o " + Quoted(L"x"));
    const std::uint64_t before = camera.Counters().requests;
    bus.WaitFor(camera.Id(), vcam::Counter::kRequests, before + 1, kDeadline);
    bus.ReleaseAll(camera.Id());  // READ CAPACITY
    bus.WaitForPending(camera.Id(), 3, kDeadline);
    read.Errors().WaitFor("{\"format_version\":1,\"progress\":", 2);
    bus.ReleaseAll(camera.Id());
    const Result result = read.Finish();
    EXPECT_EQ(result.exitCode, 0u) << result;
    ASSERT_GE(result.errors.size(), 4u) << result;
    for (std::size_t i = 0; i < 2; ++i) {
        const Json progress = Json::parse(result.errors[i]).at("progress");
        EXPECT_EQ(
            progress,
            (Json{{"step", "read"}, {"bytes", 0}, {"total", 153600}, {"bytes_per_second", 0}}));
    }
    const Json last = Json::parse(result.errors[result.errors.size() - 2]).at("progress");
    EXPECT_EQ(last.at("bytes"), 153600);
    EXPECT_GT(last.at("bytes_per_second").get<std::int64_t>(), 0);
    EXPECT_EQ(result.errors.back(), "read 300 blocks starting at block 0, 153600 bytes");
    EXPECT_TRUE(Failed(Read(L"--progress x -o y"), 2, "--progress must be json, not \"x\""));
}

}  // namespace
}  // namespace system_test
