// The driver removed and installed again while cameras are in use.

#include <array>
#include <filesystem>
#include <utility>

#include "support/file_content.h"
#include "vcamctl_program.h"
#include "virtual_camera_fixture.h"

namespace camera_test {
namespace {

/// Installs the driver again at the end of a test, also if the test fails.
struct Reinstalling {
    ~Reinstalling() {
        const system_test::ProgramResult install = system_test::Vcamctl(L"install");
        EXPECT_EQ(install.exitCode, 0u) << testing::PrintToString(install.errors);
    }
};

/// How many copies of the driver's INF the system keeps. Their names are the system's choice.
int KeptInfs() {
    const Bytes inf = ContentOf(system_test::TestFolder() + L"\\..\\virtualcamera\\orvikvcam.inf");
    EXPECT_FALSE(inf.empty());
    std::array<wchar_t, MAX_PATH> windows = {};
    ::GetSystemWindowsDirectoryW(windows.data(), static_cast<UINT>(windows.size()));
    int count = 0;
    for (const std::filesystem::directory_entry& entry :
         std::filesystem::directory_iterator(std::filesystem::path(windows.data()) / L"inf"))
        count += entry.is_regular_file() && entry.file_size() == inf.size() &&
                 ContentOf(entry.path()) == inf;
    return count;
}

TEST_F(VirtualCamera, UninstallRemovesTheCopyOfTheInf) {
    EXPECT_EQ(KeptInfs(), 1);
    {
        const Reinstalling reinstalling;
        const system_test::ProgramResult uninstall = system_test::Vcamctl(L"uninstall");
        EXPECT_EQ(uninstall.exitCode, 0u) << testing::PrintToString(uninstall.errors);
        EXPECT_EQ(KeptInfs(), 0);
    }
    bus = vcam::Bus();
}

TEST_F(VirtualCamera, UninstallWithAHandleOpenAndARequestPending) {
    if (!RunsOnWine())
        GTEST_SKIP() << "Windows keeps a driver whose devices are in use until the next start";
    for (int round = 0; round < 3; ++round) {
        PlugAndOpen();
        SetHold();
        Transfer read = ReadIn(Read6(0, 1));
        ASSERT_EQ(read.Issue(device.get()), DWORD{ERROR_IO_PENDING});
        bus.WaitForPending(id, 1, kPatience);
        {
            const Reinstalling reinstalling;
            EXPECT_EQ(system_test::Vcamctl(L"uninstall").exitCode, 0u);
            EXPECT_EQ(read.Await(), DWORD{ERROR_DEVICE_NOT_CONNECTED});
            Transfer late = ReadIn(Read6(0, 1));
            EXPECT_NE(late.Run(device.get()), 0u);
            EXPECT_EQ(CodeThrownBy([] { vcam::Bus(); }), ERROR_FILE_NOT_FOUND);
            if (round == 1)
                device.reset();  // between the drivers
        }
        bus = vcam::Bus();
        UniqueHandle old = std::move(device);
        PlugAndOpen();
        old.reset();  // with the next driver in place
        Transfer inquiry = ReadIn(Cdb({0x12, 0, 0, 0, 36}), 36);
        EXPECT_EQ(inquiry.Run(device.get()), 0u);
        EXPECT_EQ(bus.Counters(id).closes, 0u);
    }
}

}  // namespace
}  // namespace camera_test
