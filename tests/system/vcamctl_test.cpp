// vcamctl: its messages when a command fails, and its files.

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vcamctl_program.h"

namespace system_test {
namespace {

/// That a run failed, with one line that begins with `start`, goes on in words and names the
/// system's error code, and said nothing on standard output.
testing::AssertionResult Failed(const ProgramResult& result, const std::string& start, int code) {
    const std::string end = " (error " + std::to_string(code) + ")";
    if (result.exitCode != 0 && result.output.empty() && result.errors.size() == 1) {
        const std::string& line = result.errors[0];
        if (line.starts_with("vcamctl: " + start + ": ") && line.ends_with(end) &&
            line.size() > start.size() + end.size() + 20)
            return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "exit code " << result.exitCode << ", output "
                                       << testing::PrintToString(result.output) << ", errors "
                                       << testing::PrintToString(result.errors);
}

/// Begins with no camera plugged, and an empty folder.
class VcamctlTest : public testing::Test {
protected:
    VcamctlTest() : folder(std::filesystem::path(TestFolder()) / L"vcamctl_test.files") {
        bus.UnplugAll();
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
    }
    ~VcamctlTest() override {
        bus.UnplugAll();
        std::filesystem::remove_all(folder);
    }

    /// As an argument, in quotation marks.
    std::wstring Quoted(const std::wstring& file) const {
        return L"\"" + (folder / file).wstring() + L"\"";
    }
    /// As it appears in a message.
    std::string Named(const std::wstring& file) const { return ToUtf8((folder / file).wstring()); }

    vcam::Bus bus;
    const std::filesystem::path folder;
};

TEST_F(VcamctlTest, WrongArguments) {
    for (const wchar_t* const arguments : {L"",
                                           L"nonsense",
                                           L"list 1",
                                           L"list --nonsense",
                                           L"install x",
                                           L"uninstall x",
                                           L"plug --blocks x",
                                           L"plug --blocks -1",
                                           L"plug --absent serial",
                                           L"plug --class nonsense",
                                           L"unplug",
                                           L"unplug x",
                                           L"unplug 1 --all",
                                           L"behave",
                                           L"behave 1 --scsi-status 256",
                                           L"behave 1 --delay x",
                                           L"release",
                                           L"release 1 x",
                                           L"requests",
                                           L"requests 1 --count x",
                                           L"load 1",
                                           L"save 1"}) {
        const ProgramResult result = Vcamctl(arguments);
        EXPECT_NE(result.exitCode, 0u) << testing::PrintToString(std::wstring(arguments));
        EXPECT_TRUE(result.output.empty()) << testing::PrintToString(result.output);
        EXPECT_FALSE(result.errors.empty()) << testing::PrintToString(std::wstring(arguments));
    }
    EXPECT_TRUE(bus.List().empty());
}

TEST_F(VcamctlTest, MessageAboutANumberNamesTheOptionAndTheRange) {
    const struct {
        const wchar_t* arguments;
        const char* name;
        const char* range;
    } kCases[] = {{L"plug --blocks 0", "--blocks", "1 to 131072"},
                  {L"plug --blocks 131073", "--blocks", "1 to 131072"},
                  {L"behave 1 --scsi-status 256", "--scsi-status", "0 to 255"},
                  {L"behave 1 --delay x", "--delay", "0 to 4294967294"},
                  {L"behave 1 --returned -1", "--returned", "0 to 4294967295"},
                  {L"behave 1 --delay 4294967295", "--delay", "0 to 4294967294"},
                  {L"requests 1 --count 65", "--count", "0 to 64"},
                  {L"unplug 0", "id", "1 to 4294967295"},
                  {L"release 1 0", "sequence", "1 to 18446744073709551615"}};
    for (const auto& [arguments, name, range] : kCases) {
        const ProgramResult result = Vcamctl(arguments);
        EXPECT_NE(result.exitCode, 0u) << name;
        ASSERT_EQ(result.errors.size(), 2u) << testing::PrintToString(result.errors);
        EXPECT_EQ(result.errors[0],
                  "vcamctl: " + std::string(name) + ": must be a number from " + range);
        EXPECT_EQ(result.errors[1], "Try vcamctl --help");
    }
    EXPECT_TRUE(bus.List().empty());
}

TEST_F(VcamctlTest, HelpGoesToStandardOutput) {
    for (const wchar_t* const arguments : {L"--help", L"plug --help"}) {
        const ProgramResult result = Vcamctl(arguments);
        EXPECT_EQ(result.exitCode, 0u);
        EXPECT_FALSE(result.output.empty());
        EXPECT_TRUE(result.errors.empty());
    }
}

TEST_F(VcamctlTest, FileThatIsNotThere) {
    const std::string camera = std::to_string(bus.Plug());
    const std::wstring id(camera.begin(), camera.end());
    for (const std::wstring& command : {std::wstring(L"plug --memory "), L"load " + id + L" ",
                                        L"behave " + id + L" --descriptor "}) {
        EXPECT_TRUE(Failed(Vcamctl(command + Quoted(L"none.img")),
                           "cannot open " + Named(L"none.img"), ERROR_FILE_NOT_FOUND));
        EXPECT_TRUE(Failed(Vcamctl(command + Quoted(L"no\\file")),
                           "cannot open " + Named(L"no\\file"), ERROR_PATH_NOT_FOUND));
        EXPECT_TRUE(Failed(Vcamctl(command + Quoted(L".")), "cannot open " + Named(L"."),
                           ERROR_ACCESS_DENIED));
    }
    EXPECT_EQ(bus.List().size(), 1u);  // none was plugged
}

TEST_F(VcamctlTest, FileThatCannotBeWritten) {
    const std::string camera = std::to_string(bus.Plug());
    const std::wstring save = L"save " + std::wstring(camera.begin(), camera.end()) + L" ";
    EXPECT_TRUE(Failed(Vcamctl(save + Quoted(L"no\\file")), "cannot create " + Named(L"no\\file"),
                       ERROR_PATH_NOT_FOUND));
    std::filesystem::create_directory(folder / L"folder");
    const ProgramResult result = Vcamctl(save + Quoted(L"folder"));
    EXPECT_NE(result.exitCode, 0u);
    ASSERT_EQ(result.errors.size(), 1u);
    EXPECT_TRUE(result.errors[0].starts_with("vcamctl: cannot create " + Named(L"folder") + ": "))
        << result.errors[0];
}

TEST_F(VcamctlTest, WhatTheDriverRefuses) {
    EXPECT_TRUE(
        Failed(Vcamctl(L"plug --instance a/b"), "cannot plug a camera", ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(Failed(Vcamctl(L"unplug 999999"), "cannot unplug camera 999999",
                       ERROR_DEVICE_NOT_CONNECTED));
    EXPECT_TRUE(Failed(Vcamctl(L"behave 999999"), "cannot set the behaviour of camera 999999",
                       ERROR_DEVICE_NOT_CONNECTED));
    EXPECT_TRUE(Failed(Vcamctl(L"requests 999999"), "cannot read the counters of camera 999999",
                       ERROR_DEVICE_NOT_CONNECTED));
    EXPECT_TRUE(bus.List().empty());
}

TEST_F(VcamctlTest, FileLargerThanTheMemory) {
    std::ofstream(folder / L"large", std::ios::binary) << std::string(513, 'x');
    const ProgramResult result = Vcamctl(L"plug --blocks 1 --memory " + Quoted(L"large"));
    EXPECT_NE(result.exitCode, 0u);
    ASSERT_EQ(result.errors.size(), 1u);
    EXPECT_EQ(result.errors[0],
              "vcamctl: " + Named(L"large") + " is larger than the camera's memory of 512 bytes");
    EXPECT_TRUE(bus.List().empty());
}

TEST_F(VcamctlTest, MemoryGoesFromFileToFile) {
    const std::wstring name = L"B\u00E4r \u65E5\u672C.img";
    std::string content(3 * vcam::kBlockSize, '\0');
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<char>(i * 7 + i / 256);  // has every byte, newlines too
    std::ofstream(folder / name, std::ios::binary) << content;

    const ProgramResult plugged = Vcamctl(L"plug --blocks 3 --memory " + Quoted(name));
    ASSERT_EQ(plugged.exitCode, 0u);
    ASSERT_EQ(bus.List().size(), 1u);
    const std::string id = std::to_string(bus.List()[0].id);
    EXPECT_EQ(plugged.output, std::vector<std::string>{id});

    const std::wstring save = L"save " + std::wstring(id.begin(), id.end()) + L" ";
    std::ofstream(folder / L"saved", std::ios::binary) << std::string(10000, 'x');  // is replaced
    ASSERT_EQ(Vcamctl(save + Quoted(L"saved")).exitCode, 0u);
    std::ifstream saved(folder / L"saved", std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(saved), {}), content);
}

}  // namespace
}  // namespace system_test
