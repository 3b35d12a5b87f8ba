// The watch over removable drives, on drives that come and go.

#include "device/drive_watch.h"

#include <gtest/gtest.h>

#include "removable_drive.h"

namespace {

TEST(DriveWatchTest, FirstScanOpensARemovableDriveThatIsPresent) {
    if (!RemovableDrive::IsSupported())
        GTEST_SKIP() << "no drives can be made here";
    notificationWindow = ::CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                                           nullptr, nullptr);
    RemovableDrive drive(L'E');
    ScanDrives(true);
    EXPECT_NE(driveSlots[4].volume, nullptr);
    EXPECT_NE(driveSlots[4].notification, nullptr);
    driveSlots[4].Release();
}

}  // namespace
