#include "service/wide_output.h"

#include <iostream>
#include <sstream>
#include <streambuf>
#include <string>

#include <gtest/gtest.h>

namespace {

/// What arrives in std::cout's buffer while this lives.
class Narrow {
public:
    Narrow() : previous(std::cout.rdbuf(&buffer)) {}
    ~Narrow() { std::cout.rdbuf(previous); }
    Narrow(const Narrow&) = delete;
    Narrow& operator=(const Narrow&) = delete;
    std::string Text() const { return buffer.str(); }

private:
    std::stringbuf buffer;
    std::streambuf* previous;
};

/// What a wide text becomes; the lines behind it, narrow and wide, must arrive in any case.
std::string Written(const std::wstring& text) {
    const Narrow narrow;
    {
        const WideOutput wide;
        std::wcout << text << std::endl;
        std::cout << "narrow" << std::endl;
        std::wcout << L"wide " << 7 << std::endl;
        EXPECT_TRUE(std::wcout.good());
    }
    const std::string all = narrow.Text();
    const std::string rest = "\nnarrow\nwide 7\n";
    EXPECT_GE(all.size(), rest.size());
    EXPECT_EQ(all.substr(all.size() - rest.size()), rest) << all;
    return all.substr(0, all.size() - rest.size());
}

TEST(WideOutput, AsciiArrivesAsItIs) {
    EXPECT_EQ(Written(L""), "");
    EXPECT_EQ(Written(LR"(DeviceArrival: \\?\usb#vid_1234)"), R"(DeviceArrival: \\?\usb#vid_1234)");
}

TEST(WideOutput, CharactersOutsideAsciiArriveAsUtf8) {
    EXPECT_EQ(Written(L"\u00e4\u00f6\u00fc"), "\xC3\xA4\xC3\xB6\xC3\xBC");
    EXPECT_EQ(Written(L"\u65e5\u672c"), "\xE6\x97\xA5\xE6\x9C\xAC");
    EXPECT_EQ(Written(L"a\u20acb"),
              "a\xE2\x82\xAC"
              "b");
    EXPECT_EQ(Written(L"\ufffd"), "\xEF\xBF\xBD");
}

TEST(WideOutput, SurrogatePairsArriveAsOneCharacter) {
    EXPECT_EQ(Written(L"x\xD83D\xDCF7y"), "x\xF0\x9F\x93\xB7y");
    EXPECT_EQ(Written(L"\xD83D\xDCF7\xD83D\xDCF7"), "\xF0\x9F\x93\xB7\xF0\x9F\x93\xB7");
}

TEST(WideOutput, LoneSurrogatesBecomeReplacementCharacters) {
    const std::string replacement = "\xEF\xBF\xBD";
    EXPECT_EQ(Written(L"a\xDCF7z"), "a" + replacement + "z");
    EXPECT_EQ(Written(L"a\xD83Dz"), "a" + replacement + "z");
    EXPECT_EQ(Written(L"a\xD83D\xD83D\xDCF7z"), "a" + replacement + "\xF0\x9F\x93\xB7z");
    EXPECT_EQ(Written(L"\xD83D\x00e4"), replacement + "\xC3\xA4");
}

TEST(WideOutput, LoneSurrogateAtTheEndOfALineDoesNotEatTheLine) {
    EXPECT_EQ(Written(L"a\xD83D"), "a\xEF\xBF\xBD");
}

TEST(WideOutput, UnitThatStandsForTheEndOfAStreamIsLeftOut) {
    // U+FFFF, which is no character: the stream can't tell it from its end.
    EXPECT_EQ(Written(L"a\uffff"
                      L"b"),
              "ab");
}

TEST(WideOutput, OutputStaysInOrderWithNarrowOutput) {
    const Narrow narrow;
    const WideOutput wide;
    std::cout << "1 ";
    std::wcout << L"2\u00e4 ";
    std::cout << "3 ";
    std::wcout << L"4" << std::flush;
    EXPECT_EQ(narrow.Text(), "1 2\xC3\xA4 3 4");
}

TEST(WideOutput, StreamsAreAsBeforeAfterwards) {
    std::wstreambuf* const before = std::wcout.rdbuf();
    {
        const WideOutput wide;
        EXPECT_EQ(std::wcout.rdbuf(), &wide);
    }
    EXPECT_EQ(std::wcout.rdbuf(), before);
}

TEST(WideOutput, FailingOutputIsNoError) {
    // As in a service: every write fails.
    class Closed : public std::streambuf {};
    Closed closed;
    std::streambuf* const previous = std::cout.rdbuf(&closed);
    {
        const WideOutput wide;
        EXPECT_NO_THROW(std::wcout << L"lost \u00e4" << std::endl);
        EXPECT_TRUE(std::wcout.bad()) << "the stream was told that nothing was written";
        std::wcout.clear();
    }
    std::cout.rdbuf(previous);
    std::cout.clear();
    EXPECT_EQ(Written(L"found"), "found");
}

}  // namespace
