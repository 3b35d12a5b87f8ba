// The fixtures of the tests of orvikctl.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "orvikctl_program.h"
#include "raw_client.h"
#include "support/file_content.h"
#include "support/plugged_camera.h"
#include "windows/unique_handle.h"

namespace system_test {

/// Begins without service and with an empty folder for files.
class OrvikctlTest : public SystemTest {
protected:
    OrvikctlTest() : folder(std::filesystem::path(TestFolder()) / L"orvikctl_test.files") {
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
    }
    ~OrvikctlTest() override { std::filesystem::remove_all(folder); }

    /// As an argument.
    std::wstring Quoted(const std::filesystem::path& file) const {
        return L"\"" + (folder / file).wstring() + L"\"";
    }

    /// What lies in the folder.
    std::vector<std::filesystem::path> Files() const {
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            files.push_back(entry.path().filename());
        return files;
    }
    void ExpectNoFiles() const { EXPECT_EQ(Files(), std::vector<std::filesystem::path>{}); }

    Bytes ContentOf(const std::filesystem::path& file) const { return ::ContentOf(folder / file); }
    void MakeFile(const std::filesystem::path& file, const Bytes& content) const {
        std::ofstream(folder / file, std::ios::binary)
            .write(reinterpret_cast<const char*>(content.data()),
                   static_cast<std::streamsize>(content.size()));
    }

    /// A file that a program which is started can use.
    UniqueHandle OpenForChild(const std::filesystem::path& file, DWORD access,
                              DWORD disposition) const {
        SECURITY_ATTRIBUTES inheritable{sizeof(inheritable), nullptr, TRUE};
        return OwnFile(::CreateFileW((folder / file).c_str(), access,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE, &inheritable, disposition,
                                     FILE_ATTRIBUTE_NORMAL, nullptr));
    }

    /// Runs it with standard streams of the test's, as the shell does for < and >; its exit code.
    static DWORD RunWith(const std::wstring& arguments, HANDLE input, HANDLE output,
                         HANDLE errors) {
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = input;
        startup.hStdOutput = output;
        startup.hStdError = errors;
        std::wstring commandLine = L"orvikctl " + arguments;
        PROCESS_INFORMATION information{};
        if (!::CreateProcessW(ProgramPath(L"orvikctl.exe").c_str(), commandLine.data(), nullptr,
                              nullptr, TRUE, DETACHED_PROCESS, nullptr, nullptr, &startup,
                              &information))
            throw std::runtime_error("CreateProcessW failed");
        const UniqueHandle thread(information.hThread);
        const UniqueHandle process(information.hProcess);
        const Deadline deadline;
        DWORD exitCode = STILL_ACTIVE;
        ::WaitForSingleObject(process.get(), deadline.MillisecondsLeft());
        ::GetExitCodeProcess(process.get(), &exitCode);
        return exitCode;
    }

    const std::filesystem::path folder;
};

/// With a camera of 300 blocks, each of them different, and the service in the foreground.
class OrvikctlWithCamera : public OrvikctlTest {
protected:
    static constexpr std::uint32_t kBlocks = 300;

    static vcam::PlugOptions Options(std::uint32_t blocks) {
        vcam::PlugOptions options;
        options.blockCount = blocks;
        return options;
    }

    static Bytes Pattern(std::size_t length, std::size_t seed) {
        Bytes bytes(length);
        for (std::size_t i = 0; i < length; ++i)
            bytes[i] = static_cast<std::byte>(i * seed + i / 512);
        return bytes;
    }

    /// What is beyond 300 blocks is zero.
    explicit OrvikctlWithCamera(std::uint32_t blocks = kBlocks) : camera(bus, Options(blocks)) {
        bus.WriteMemory(camera.Id(), 0, content);
    }

    Bytes Blocks(std::size_t first, std::size_t count) const {
        const auto start = content.begin() + static_cast<std::ptrdiff_t>(first * vcam::kBlockSize);
        return {start, start + static_cast<std::ptrdiff_t>(count * vcam::kBlockSize)};
    }

    /// Runs it while another program is the main communicator, so that it gets no report of
    /// cameras, and unplugs the camera during its first command.
    Result RunUnplugged(const std::wstring& arguments) {
        const RawClient application;
        service.Output().WaitFor("attached main communicator");
        camera.Set(Holds());
        OrvikctlProgram program(kNoServerCheck + arguments);
        bus.WaitForPending(camera.Id(), 1, kDeadline);
        camera.Unplug();
        return program.Finish();
    }

    Bytes Memory() { return bus.ReadMemory(camera.Id(), 0, kBlocks * vcam::kBlockSize); }

    const Bytes content = Pattern(kBlocks * vcam::kBlockSize, 7);
    PluggedCamera camera;
    RunningService service;
};

}  // namespace system_test
