#include "device/windows_exception.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/device.h"
#include "device/io_operation.h"
#include "guarded_heap.h"

namespace {

std::string TextFor(DWORD code, const char* text) {
    ::SetLastError(code);
    return WindowsException(text).what();
}

/// First line of the system's own message.
std::string FirstLine(DWORD code) {
    char buffer[1000] = "";
    ::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                     buffer, sizeof(buffer), nullptr);
    return {buffer, std::strcspn(buffer, "\r\n")};
}

TEST(WindowsException, GivesTextCodeInHexadecimalAndTheSystemsMessage) {
    const std::string message = FirstLine(ERROR_SHARING_VIOLATION);
    ASSERT_NE(message, "");
    EXPECT_EQ(TextFor(ERROR_SHARING_VIOLATION, "Device::Open() failed."),
              "Device::Open() failed.  GetLastError() = 0x20 (" + message + ")");
}

TEST(WindowsException, CodeIsInLowerCaseWithoutLeadingZeros) {
    EXPECT_EQ(TextFor(0xABCDEF01, "x"), "x  GetLastError() = 0xabcdef01 ()");
    EXPECT_EQ(TextFor(0, "x").find("x  GetLastError() = 0x0 ("), 0u);
}

TEST(WindowsException, CodeWithoutAMessageGivesEmptyParentheses) {
    EXPECT_EQ(TextFor(0x20001234, "call failed."), "call failed.  GetLastError() = 0x20001234 ()");
}

TEST(WindowsException, WithoutATextThereIsOnlyTheCode) {
    const std::string expected = "GetLastError() = 0x5 (" + FirstLine(ERROR_ACCESS_DENIED) + ")";
    EXPECT_EQ(TextFor(ERROR_ACCESS_DENIED, nullptr), expected);
    ::SetLastError(ERROR_ACCESS_DENIED);
    EXPECT_EQ(WindowsException().what(), expected);
    EXPECT_EQ(TextFor(ERROR_ACCESS_DENIED, ""), "  " + expected);
}

TEST(WindowsException, CodeIsThatFromBeforeTheFormatting) {
    ORVIK_NEEDS_GUARDED_HEAP();
    const std::string text(2000, 'x');  // the stream allocates its buffer again and frees the first
    const guarded_heap::ErrorChangingFree changing;
    EXPECT_EQ(TextFor(0x20001234, text.c_str()), text + "  GetLastError() = 0x20001234 ()");
}

TEST(WindowsException, MessageIsOnlyTheFirstLine) {
    bool sawLongMessage = false;
    for (DWORD code = 1; code < 2000; ++code) {
        const std::string text = TextFor(code, "x");
        ASSERT_EQ(text.find_first_of("\r\n"), std::string::npos) << text;
        ASSERT_EQ(text.back(), ')') << text;
        sawLongMessage = sawLongMessage || text.size() > 30;
    }
    EXPECT_TRUE(sawLongMessage);
}

TEST(WindowsException, InsertsOfASystemMessageStayAsTheyAre) {
    // "%1 is not a valid Win32 application."
    EXPECT_NE(TextFor(ERROR_BAD_EXE_FORMAT, "x").find("%1"), std::string::npos)
        << TextFor(ERROR_BAD_EXE_FORMAT, "x");
}

TEST(WindowsException, IsCaughtAsARuntimeError) {
    try {
        throw WindowsException("a call failed.");
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()).find("a call failed.  GetLastError() = 0x"), 0u);
    }
}

TEST(WindowsException, RemovedDeviceShowsWhateverCodeIsCurrent) {
    Device device(L"nowhere", 1, nullptr);
    device.SetRemoved();
    IoOperation operation{IoCallback()};
    const TransferRequest request{};
    ::SetLastError(0x20001234);
    try {
        device.Transfer(&operation, &request, nullptr, 0);
        FAIL() << "no exception";
    } catch (const WindowsException& exception) {
        EXPECT_STREQ(exception.what(),
                     "Transfer Request for device that has already been removed.  "
                     "GetLastError() = 0x20001234 ()");
    }
    EXPECT_EQ(operation.transferBuffer, nullptr);
}

}  // namespace
