// orvikctl read and write.

#include <optional>

#include "orvikctl_fixture.h"
#include "raw_client.h"

namespace system_test {
namespace {

class OrvikctlBlocks : public OrvikctlWithCamera {
protected:
    Result Read(const std::wstring& arguments, const std::filesystem::path& file) const {
        return OrvikctlInForeground(L"read " + arguments + L" -o " + Quoted(file));
    }
    Result Write(const std::wstring& arguments, const std::filesystem::path& file) const {
        return OrvikctlInForeground(L"write " + arguments + L" -i " + Quoted(file));
    }

    /// As a program opens a file that it reads, and also as many virus scanners do.
    UniqueHandle OpenWithoutSharingDelete(const std::filesystem::path& file) const {
        return OwnFile(::CreateFileW((folder / file).c_str(), GENERIC_READ,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                     FILE_ATTRIBUTE_NORMAL, nullptr));
    }

    /// In bytes; 0 if there is none.
    std::uint64_t SizeOfPartialFile() const {
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            if (entry.path().extension() == L".part")
                return entry.file_size();
        return 0;
    }

    /// That a run has read everything and could not give the file its name, "x".
    void ExpectKeptPartialFile(const Result& result) const {
        const std::vector<std::filesystem::path> files = Files();
        ASSERT_EQ(files.size(), 2u);
        const auto& partial = files[0] == L"x" ? files[1] : files[0];
        EXPECT_TRUE(Failed(result, 1,
                           "the data is complete and is in " +
                               ToUtf8((folder / partial).wstring()) +
                               ", but that file cannot be renamed to "));
        EXPECT_EQ(ContentOf(partial), content);
    }

    /// The start of the message about the size of a file.
    std::string SizeOf(const std::filesystem::path& file) const {
        return "the size of " + ToUtf8((folder / file).wstring()) + " is ";
    }
};

TEST_F(OrvikctlBlocks, ReadTakesTheWholeCamera) {
    const Result result = Read(L"", L"all.bin");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.output, Lines{});
    EXPECT_EQ(result.errors, Lines{"read 300 blocks starting at block 0, 153600 bytes"});
    EXPECT_EQ(ContentOf(L"all.bin"), content);
    EXPECT_EQ(Files().size(), 1u);
}

TEST_F(OrvikctlBlocks, ReadTakesTheBlocksAskedFor) {
    EXPECT_EQ(Read(L"--camera 1 --first 7 --blocks 129", L"a").exitCode, 0u);
    EXPECT_EQ(ContentOf(L"a"), Blocks(7, 129));
    EXPECT_EQ(Read(L"--camera 1 --first 299", L"b").exitCode, 0u);
    EXPECT_EQ(ContentOf(L"b"), Blocks(299, 1));
    const Json json = JsonOf(Read(L"--json --first 010 --blocks 128 --outstanding 1", L"c"));
    EXPECT_EQ(json.at("camera"), 1);
    EXPECT_EQ(json.at("first_block"), 10);
    EXPECT_EQ(json.at("blocks"), 128);
    EXPECT_EQ(json.at("bytes"), 65536);
    EXPECT_EQ(ContentOf(L"c"), Blocks(10, 128));
}

TEST_F(OrvikctlBlocks, ReadBeyondTheEnd) {
    EXPECT_TRUE(
        Failed(Read(L"--first 300", L"x"), 1,
               "the camera has 300 blocks: --first must be a number from 0 to 299, not 300"));
    EXPECT_TRUE(Failed(Read(L"--first 299 --blocks 2", L"x"), 1,
                       "the camera has 300 blocks: starting at block 299, --blocks must be at most "
                       "1, not 2"));
    EXPECT_TRUE(Failed(Read(L"--first 4294967295 --blocks 4294967295", L"x"), 1,
                       "the camera has 300 blocks: --first must be "));
    ExpectNoFiles();
}

TEST_F(OrvikctlBlocks, FileNamesOutsideAscii) {
    const std::wstring name = L"B\u00E4r \u65E5\u672C \U0001F4F7.bin";
    EXPECT_EQ(Read(L"", name).exitCode, 0u);
    EXPECT_EQ(ContentOf(name), content);
    EXPECT_EQ(Write(L"", name).exitCode, 0u);
    const Result result = Read(L"", name + L"\\x");
    EXPECT_TRUE(Failed(result, 1, "cannot create "));
    EXPECT_NE(result.errors.at(0).find("B\xC3\xA4r \xE6\x97\xA5"), std::string::npos) << result;
}

TEST_F(OrvikctlBlocks, FileNamesOutsideAsciiWithoutTheManifest) {
    // As on Windows before 1903, which ignores the manifest's code page.
    const std::wstring name = L"B\u00E4r \u65E5\u672C \U0001F4F7.bin";
    Program program(TestFolder() + L"\\orvikctl_without_manifest.exe",
                    kNoServerCheck + L"read -o " + Quoted(name));
    EXPECT_EQ(program.WaitForEnd(), 0u) << program.Errors().Text();
    EXPECT_EQ(ContentOf(name), content);
}

TEST_F(OrvikctlBlocks, PathsBeyond260Characters) {
    DWORD enabled = 1;
    DWORD size = sizeof(enabled);
    ::RegGetValueW(HKEY_LOCAL_MACHINE, LR"(SYSTEM\CurrentControlSet\Control\FileSystem)",
                   L"LongPathsEnabled", RRF_RT_REG_DWORD, nullptr, &enabled, &size);
    const std::wstring path = (folder / std::wstring(230, L'a')).wstring();
    ASSERT_GT(path.size(), 260u);
    // With this prefix a path may have any length, also in this program, which has no manifest.
    const std::wstring prefixed = LR"(\\?\)" + path;
    for (const std::wstring& argument : {prefixed, path}) {
        if (argument == path && enabled == 0)
            break;  // this machine allows no such paths
        const Result read = OrvikctlInForeground(L"read -o \"" + argument + L"\"");
        EXPECT_EQ(read.exitCode, 0u) << read;
        const Result write = OrvikctlInForeground(L"write -i \"" + argument + L"\"");
        EXPECT_EQ(write.exitCode, 0u) << write;
        EXPECT_TRUE(::DeleteFileW(prefixed.c_str()));
    }
}

TEST_F(OrvikctlBlocks, ReadReplacesAFileOnlyByACompleteOne) {
    MakeFile(L"x", Bytes(9));
    camera.Set(AnswersScsiStatus(2));
    EXPECT_EQ(Read(L"", L"x").exitCode, 8u);
    EXPECT_EQ(ContentOf(L"x"), Bytes(9));
    camera.Set({});
    EXPECT_EQ(Read(L"", L"x").exitCode, 0u);
    EXPECT_EQ(ContentOf(L"x"), content);
    EXPECT_EQ(Files().size(), 1u);
}

TEST_F(OrvikctlBlocks, FolderThatIsNotThere) {
    const Result result = Read(L"", L"none/x");
    EXPECT_TRUE(Failed(result, 1, "cannot create "));
    EXPECT_TRUE(result.errors.at(0).ends_with("(error 3)")) << result;
}

TEST_F(OrvikctlBlocks, TargetThatStaysOpenElsewhereCostsNoData) {
    MakeFile(L"x", Bytes(9));
    const UniqueHandle user = OpenWithoutSharingDelete(L"x");
    ASSERT_TRUE(user);
    ExpectKeptPartialFile(Read(L"", L"x"));
    EXPECT_EQ(ContentOf(L"x"), Bytes(9));
}

TEST_F(OrvikctlBlocks, TargetThatIsOpenElsewhereForAMomentIsReplaced) {
    MakeFile(L"x", Bytes(9));
    UniqueHandle user = OpenWithoutSharingDelete(L"x");
    ASSERT_TRUE(user);
    OrvikctlProgram program(kNoServerCheck + L"read -o " + Quoted(L"x"));
    // The partial file is complete before the first try to rename it.
    const Deadline deadline;
    while (!deadline.Over() && SizeOfPartialFile() != content.size())
        ::Sleep(kMillisecondsBetweenLooks);
    EXPECT_EQ(SizeOfPartialFile(), content.size());
    EXPECT_EQ(::WaitForSingleObject(program.Process(), 300), DWORD{WAIT_TIMEOUT});
    user.reset();
    const Result result = program.Finish();
    EXPECT_EQ(result.exitCode, 0u) << result;
    EXPECT_EQ(ContentOf(L"x"), content);
    EXPECT_EQ(Files().size(), 1u);
}

TEST_F(OrvikctlBlocks, CameraThatReturnsLessThanItWasAskedFor) {
    vcam::Behaviour few;
    few.maximumDataBytes = 10;  // enough for READ CAPACITY
    camera.Set(few);
    EXPECT_TRUE(
        Failed(Read(L"", L"x"), 9,
               "the camera returned 10 bytes instead of 65536 for 128 blocks starting at block 0"));
    few.maximumDataBytes = 7;
    camera.Set(few);
    EXPECT_TRUE(Failed(Read(L"", L"x"), 9));
    ExpectNoFiles();
}

TEST_F(OrvikctlBlocks, WriteTakesTheWholeFile) {
    const Bytes whole = Pattern(kBlocks * vcam::kBlockSize, 11);
    MakeFile(L"x", whole);
    const Result result = Write(L"", L"x");
    EXPECT_EQ(result.exitCode, 0u);
    EXPECT_EQ(result.output, Lines{});
    EXPECT_EQ(result.errors, Lines{"wrote 300 blocks starting at block 0, 153600 bytes"});
    EXPECT_EQ(Memory(), whole);
}

TEST_F(OrvikctlBlocks, WriteLeavesTheOtherBlocksAlone) {
    const Bytes part = Pattern(130 * vcam::kBlockSize, 11);
    MakeFile(L"x", part);
    const Json json = JsonOf(Write(L"--camera 1 --first 7 --json", L"x"));
    EXPECT_EQ(json.at("first_block"), 7);
    EXPECT_EQ(json.at("blocks"), 130);
    EXPECT_EQ(json.at("bytes"), 66560);
    Bytes expected = content;
    std::copy(part.begin(), part.end(), expected.begin() + 7 * vcam::kBlockSize);
    EXPECT_EQ(Memory(), expected);
}

TEST_F(OrvikctlBlocks, WriteOfWhatDoesNotFit) {
    EXPECT_TRUE(Failed(Write(L"", L"none"), 1, "cannot open "));
    MakeFile(L"x", {});
    EXPECT_TRUE(Failed(Write(L"", L"x"), 1, SizeOf("x") + "0 bytes, but must be a multiple of "));
    MakeFile(L"x", Bytes(513));
    EXPECT_TRUE(Failed(Write(L"", L"x"), 1, SizeOf("x") + "513 bytes, but must be a multiple of "));
    MakeFile(L"x", Bytes(2 * vcam::kBlockSize));
    EXPECT_TRUE(Failed(Write(L"--first 299", L"x"), 1,
                       "the camera has 300 blocks: starting at block 299, the number of blocks in "
                       "the file must be at most 1, not 2"));
    EXPECT_EQ(Memory(), content);
}

TEST_F(OrvikctlBlocks, WriteOfAFileThatIsBeingWritten) {
    MakeFile(L"x", Bytes(vcam::kBlockSize));
    const UniqueHandle writer = OwnFile(
        ::CreateFileW((folder / L"x").c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(writer);
    const Result result = Write(L"", L"x");
    EXPECT_TRUE(Failed(result, 1, "cannot open "));
    EXPECT_TRUE(result.errors.at(0).ends_with("(error 32)")) << result;
    EXPECT_EQ(Memory(), content);
}

TEST_F(OrvikctlBlocks, CameraThatRefuses) {
    MakeFile(L"x", Bytes(vcam::kBlockSize));
    camera.Set(AnswersScsiStatus(2));
    EXPECT_TRUE(Failed(Read(L"", L"y"), 8, "the command failed on camera 1. Sense data: not "));
    EXPECT_TRUE(Failed(Write(L"", L"x"), 8));
    EXPECT_EQ(Files().size(), 1u);
    EXPECT_EQ(Memory(), content);
    EXPECT_TRUE(service.IsRunning());
}

/// A run that waits in its first blocks.
class OrvikctlInTheMiddle : public OrvikctlBlocks {
protected:
    void Start(const std::wstring& arguments) {
        camera.Set(Holds());
        const std::uint64_t before = camera.Counters().requests;
        program.emplace(kNoServerCheck + arguments);
        bus.WaitFor(camera.Id(), vcam::Counter::kRequests, before + 1, kDeadline);
        bus.Release(camera.Id(), before + 1);  // READ CAPACITY
        bus.WaitForPending(camera.Id(), 3, kDeadline);
    }
    void StartReading(const std::wstring& arguments = L"") {
        Start(L"read " + arguments + L" -o " + Quoted(L"x"));
        EXPECT_EQ(Files().size(), 1u);
        EXPECT_NE(Files().at(0), L"x");
    }
    void StartWriting(const std::wstring& arguments = L"") {
        MakeFile(L"x", Bytes(kBlocks * vcam::kBlockSize));
        Start(L"write " + arguments + L" -i " + Quoted(L"x"));
    }

    /// Lets the first one end. The camera needs 3 commands for all.
    void ReleaseFirst() { bus.Release(camera.Id(), camera.Counters().requests - 2); }

    std::optional<OrvikctlProgram> program;
};

TEST_F(OrvikctlInTheMiddle, FileGetsItsNameWhenItIsComplete) {
    StartReading();
    bus.ReleaseAll(camera.Id());
    EXPECT_EQ(program->Finish().exitCode, 0u);
    EXPECT_EQ(ContentOf(L"x"), content);
    EXPECT_EQ(Files().size(), 1u);
}

TEST_F(OrvikctlInTheMiddle, AnswersInTheWrongOrder) {
    StartReading();
    const std::uint64_t last = camera.Counters().requests;
    for (std::uint64_t request = last; request > last - 3; --request)
        bus.Release(camera.Id(), request);
    EXPECT_EQ(program->Finish().exitCode, 0u);
    EXPECT_EQ(ContentOf(L"x"), content);
}

TEST_F(OrvikctlInTheMiddle, CameraUnpluggedWhileReading) {
    StartReading();
    camera.Unplug();
    EXPECT_TRUE(
        Failed(program->Finish(), 10, "camera 1 was unplugged, or given up, during the command"));
    ExpectNoFiles();
    EXPECT_TRUE(service.IsRunning());
}

/// A read takes the place of the main communicator, which stays empty after it.
TEST_F(OrvikctlInTheMiddle, DesktopProgramThatConnectsMeanwhileGetsNoReports) {
    StartReading();
    RawClient application;
    EXPECT_EQ(application.ReceiveMessage(), Attached(1));
    bus.ReleaseAll(camera.Id());
    EXPECT_EQ(program->Finish().exitCode, 0u);
    service.Output().WaitFor("Removing main communicator.");
    const PluggedCamera other(bus);
    service.Output().WaitFor("DeviceArrival: ", 2);
    EXPECT_TRUE(application.RoundTrip()) << "a report came";
    EXPECT_EQ(AnnouncedCameras(), (std::vector<std::uint32_t>{1, 2}));
}

TEST_F(OrvikctlInTheMiddle, ServiceKilledWhileReading) {
    StartReading();
    service.Stop();
    EXPECT_TRUE(Failed(program->Finish(), 9));
    ExpectNoFiles();
}

TEST_F(OrvikctlInTheMiddle, CameraThatNeverAnswersWhileReading) {
    StartReading(L"-t 0.3");
    EXPECT_TRUE(Failed(program->Finish(), 7, "camera 1 did not answer within 300 ms (--timeout)"));
    ExpectNoFiles();
    bus.ReleaseAll(camera.Id());
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlInTheMiddle, KilledWhileReading) {
    StartReading();
    program->Terminate();
    ASSERT_EQ(Files().size(), 1u);
    EXPECT_EQ(Files().at(0).extension(), L".part");
}

TEST_F(OrvikctlInTheMiddle, CameraUnpluggedWhileWriting) {
    StartWriting();
    camera.Unplug();
    const Result result = program->Finish();
    EXPECT_TRUE(Failed(result, 10, "camera 1 was unplugged, or given up, during the command"));
    EXPECT_EQ(result.errors.at(0), "confirmed written: 0 blocks starting at block 0");
    EXPECT_TRUE(service.IsRunning());
}

TEST_F(OrvikctlInTheMiddle, ServiceKilledWhileWriting) {
    StartWriting();
    service.Stop();
    EXPECT_TRUE(Failed(program->Finish(), 9));
}

TEST_F(OrvikctlInTheMiddle, CameraThatStopsAnsweringWhileWriting) {
    StartWriting(L"-t 0.3");
    ReleaseFirst();
    const Result result = program->Finish();
    EXPECT_TRUE(Failed(result, 7, "camera 1 did not answer within 300 ms (--timeout)"));
    EXPECT_EQ(result.errors.at(0), "confirmed written: 128 blocks starting at block 0");
    bus.ReleaseAll(camera.Id());
    EXPECT_TRUE(service.IsRunning());
}

}  // namespace
}  // namespace system_test
