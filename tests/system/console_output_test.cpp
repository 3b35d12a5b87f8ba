// Texts of the tools on a console. Consoles fail for a long text, and may write less than they were
// given, which Wine's does not: a hook does it here, and passes the rest on to a real console.

#include "console_output.h"

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_console.h"
#include "unit/import_hook.h"
#include "windows/unique_handle.h"
#include "windows/utf.h"

extern "C" decltype(&::WriteConsoleW) __imp_WriteConsoleW;

namespace system_test {
namespace {

using WriteHook = HookedImport<&__imp_WriteConsoleW>;

/// The standard output of this process is a console.
class ConsoleOutput : public testing::Test {
protected:
    ConsoleOutput() { ::SetStdHandle(STD_OUTPUT_HANDLE, output.get()); }
    ~ConsoleOutput() override { ::SetStdHandle(STD_OUTPUT_HANDLE, before); }

    /// Writes a text, with calls of WriteConsoleW that end as `write` says; it returns how many
    /// units it has written. Returns the pieces that were written.
    static std::vector<std::wstring> PiecesOf(
        const std::wstring& text, const std::function<DWORD(std::wstring_view)>& write) {
        std::vector<std::wstring> pieces;
        const WriteHook hook([&](HANDLE, const void* units, DWORD count, DWORD* written, void*) {
            const std::wstring_view given(static_cast<const wchar_t*>(units), count);
            *written = write(given);
            pieces.emplace_back(given.substr(0, *written));
            return TRUE;
        });
        EXPECT_EQ(WriteText(STD_OUTPUT_HANDLE, ToUtf8(text)), DWORD{ERROR_SUCCESS});
        return pieces;
    }

    static std::wstring Joined(const std::vector<std::wstring>& pieces) {
        std::wstring text;
        for (const std::wstring& piece : pieces)
            text += piece;
        return text;
    }

    const TestConsole console;
    const HANDLE before = ::GetStdHandle(STD_OUTPUT_HANDLE);
    const UniqueHandle output = OwnFile(::CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE,
                                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                                      OPEN_EXISTING, 0, nullptr));
};

TEST_F(ConsoleOutput, LongTextIsWrittenInPiecesThatAConsoleAccepts) {
    std::string text;
    for (int i = 0; i < 5'000; ++i)
        text += "line " + std::to_string(i) + " \xE2\x82\xAC\n";
    const WriteHook hook(
        [](HANDLE handle, const void* units, DWORD count, DWORD* written, void* reserved) {
            if (count > 16'384) {
                ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return FALSE;
            }
            return WriteHook::Original(handle, units, count, written, reserved);
        });
    EXPECT_EQ(WriteText(STD_OUTPUT_HANDLE, text), DWORD{ERROR_SUCCESS});
    const std::vector<std::string> screen = console.Screen();
    ASSERT_FALSE(screen.empty());
    EXPECT_EQ(screen.back(), "line 4999 \xE2\x82\xAC");
}

TEST_F(ConsoleOutput, RestOfAShortWriteIsWritten) {
    std::wstring text;
    for (int i = 0; i < 3'000; ++i)
        text += std::to_wstring(i) + L' ';
    const auto short1000 = [](std::wstring_view given) {
        return static_cast<DWORD>(std::min<std::size_t>(given.size(), 1'000));
    };
    EXPECT_EQ(Joined(PiecesOf(text, short1000)), text);
}

TEST_F(ConsoleOutput, SurrogatePairsAreNotSeparated) {
    for (const wchar_t* const start : {L"", L"x"}) {
        std::wstring text = start;
        for (int i = 0; i < 20'000; ++i)
            text += L"\U0001F4F7";
        const std::vector<std::wstring> pieces = PiecesOf(
            text, [](std::wstring_view given) { return static_cast<DWORD>(given.size()); });
        EXPECT_EQ(Joined(pieces), text);
        EXPECT_GT(pieces.size(), 1u);
        for (const std::wstring& piece : pieces)
            EXPECT_EQ(piece.back(), L'\xDCF7');
    }
}

TEST_F(ConsoleOutput, FailureIsReturned) {
    {
        const WriteHook hook([](HANDLE, const void*, DWORD, DWORD*, void*) {
            ::SetLastError(ERROR_GEN_FAILURE);
            return FALSE;
        });
        EXPECT_EQ(WriteText(STD_OUTPUT_HANDLE, "x"), DWORD{ERROR_GEN_FAILURE});
    }
    const WriteHook hook([](HANDLE, const void*, DWORD, DWORD* written, void*) {
        *written = 0;
        return TRUE;
    });
    EXPECT_EQ(WriteText(STD_OUTPUT_HANDLE, "x"), DWORD{ERROR_WRITE_FAULT});
}

}  // namespace
}  // namespace system_test
