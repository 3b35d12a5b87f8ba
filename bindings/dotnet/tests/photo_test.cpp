// The photo program in C#, with the real service. ORVIK_DOTNET in the environment names the
// runtime.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/bytes.h"
#include "support/file_content.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "test_console.h"
#include "watching_test.h"

namespace system_test {
namespace {

using Lines = std::vector<std::string>;

constexpr std::size_t kLength = 1 << 20;
constexpr std::uint32_t kOutstanding = 4;

std::wstring RuntimePath() {
    const char* const path = std::getenv("ORVIK_DOTNET");
    if (path == nullptr)
        throw std::runtime_error("the environment variable ORVIK_DOTNET is not set");
    return std::filesystem::absolute(path).wstring();
}

Bytes Picture() {
    return Pattern(kLength);
}

class PhotoTest : public SystemTest {
protected:
    PhotoTest() { std::filesystem::remove(file); }
    ~PhotoTest() override { std::filesystem::remove(file); }

    std::wstring Arguments() const {
        return L"\"" + TestFolder() + L"\\..\\bindings\\dotnet\\Photo.dll\" \"" + file.wstring() +
               L"\"";
    }

    void StartService() {
        service.emplace(RunMode::kServiceManager);
        WaitUntilServiceHears(bus, 0);
    }

    /// Plugs a camera whose memory is the picture, and which holds every command.
    void PlugHeld() {
        camera.emplace(bus);
        bus.WriteMemory(camera->Id(), 0, Picture());
        camera->Set(Holds());
    }

    void StartPhoto() { photo.emplace(RuntimePath(), Arguments()); }

    void WaitForReads() { bus.WaitForPending(camera->Id(), kOutstanding, kDeadline); }

    /// Lets the camera execute the first read, and waits until the program has used its data.
    void LetOneReadEnd() {
        bus.Release(camera->Id(), camera->Counters().requests - kOutstanding + 1);
        WaitForReads();
    }

    void ExpectPhoto(const Bytes& expected) {
        EXPECT_EQ(photo->WaitForEnd(), 0u) << photo->Errors().Text();
        EXPECT_EQ(photo->Output().WaitForEnd(), Lines{"read 1048576 bytes"});
        const Bytes content = ContentOf(file);
        EXPECT_EQ(content.size(), expected.size());
        EXPECT_TRUE(content == expected);
    }

    const std::filesystem::path file = TestFolder() + L"\\dotnet_photo.bin";
    std::optional<RunningService> service;
    std::optional<PluggedCamera> camera;
    std::optional<Program> photo;
};

TEST_F(PhotoTest, WaitsForServiceAndCameraAndReadsThePhoto) {
    StartPhoto();
    photo->Errors().WaitFor("no service: ");
    PlugHeld();
    service.emplace(RunMode::kServiceManager);
    WaitForReads();
    camera->Set({});
    bus.ReleaseAll(camera->Id());
    ExpectPhoto(Picture());
    const Lines errors = photo->Errors().WaitForEnd();
    EXPECT_EQ(errors.back(),
              "\r6 %\r12 %\r18 %\r25 %\r31 %\r37 %\r43 %\r50 %\r56 %\r62 %\r68 %"
              "\r75 %\r81 %\r87 %\r93 %\r100 %");
}

TEST_F(PhotoTest, BeginsAgainWithTheCameraThatIsPluggedAfterAnUnplug) {
    StartService();
    PlugHeld();
    StartPhoto();
    WaitForReads();
    LetOneReadEnd();
    camera->Unplug();
    photo->Errors().WaitFor("the read failed: ");
    photo->Errors().WaitFor("waiting for a camera", 2);
    camera.emplace(bus);
    ExpectPhoto(bus.ReadMemory(camera->Id(), 0, kLength));
}

TEST_F(PhotoTest, BeginsAgainAfterARestartOfTheService) {
    StartService();
    PlugHeld();
    StartPhoto();
    WaitForReads();
    LetOneReadEnd();
    camera->Set({});
    service->Stop();
    photo->Errors().WaitFor("the read failed: ");
    photo->Errors().WaitFor("no service: ");
    service->Start();
    ExpectPhoto(Picture());
}

class PhotoOnConsole : public PhotoTest {
protected:
    void Start() { console.Start(RuntimePath(), Arguments()); }

    /// `before` is on the screen.
    void ExpectCancelled(Lines before) {
        console.PressCtrlC();
        EXPECT_EQ(console.WaitForEnd(), 1u);
        before.insert(before.end(), {"", "error: The operation was canceled."});
        EXPECT_EQ(console.Screen(), before);
        EXPECT_FALSE(std::filesystem::exists(file));
    }

    TestConsole console;
};

TEST_F(PhotoOnConsole, CtrlCEndsItDuringTheRead) {
    StartService();
    PlugHeld();
    Start();
    WaitForReads();
    ExpectCancelled({"waiting for a camera"});
    EXPECT_TRUE(service->IsRunning());
    bus.ReleaseAll(camera->Id());
}

TEST_F(PhotoOnConsole, CtrlCEndsItWithoutAService) {
    Start();
    for (const Deadline deadline; console.Screen().size() < 2; ::Sleep(kMillisecondsBetweenLooks))
        ASSERT_FALSE(deadline.Over());  // no event reports it
    ExpectCancelled(console.Screen());
}

}  // namespace
}  // namespace system_test
