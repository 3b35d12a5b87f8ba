// Records of the log: which are written, and how they look.

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <regex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "guarded_heap.h"
#include "log_system_fixture.h"

namespace {

TEST(LevelName, EachLevelHasItsName) {
    const std::pair<LogLevel, const char*> names[] = {
        {0, "NONE"},    {1, "EMERGENCY"}, {2, "ALERT"},   {4, "CRITICAL"},
        {8, "ERROR"},   {16, "WARN"},     {32, "WARN1"},  {64, "WARN2"},
        {128, "WARN3"}, {256, "INFO"},    {512, "DEBUG"}, {1024, "ALL"},
    };
    for (const auto& [level, name] : names)
        EXPECT_STREQ(LevelName(level), name) << level;
}

TEST(LevelName, AnyOtherValueIsUnknown) {
    for (int value = 0; value <= 0xFFFF; ++value) {
        const bool isLevel = value <= 1024 && (value & (value - 1)) == 0;
        EXPECT_EQ(LevelName(static_cast<LogLevel>(value)) == std::string("UNKNOWN"), !isLevel)
            << value;
    }
}

std::string Formatted(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::string text = FormatString(format, arguments);
    va_end(arguments);
    return text;
}

TEST(FormatString, BufferIsDoubledFrom1023CharactersOn) {
    ORVIK_NEEDS_GUARDED_HEAP();
    const auto buffers = [](std::size_t length) {
        const std::string text(length, 'x');
        guarded_heap::AllocationRecord record;
        const std::string formatted = Formatted("%s", text.c_str());
        std::vector<std::size_t> sizes = record.Stop();
        EXPECT_EQ(formatted, text);
        return sizes;
    };
    // And the result.
    EXPECT_EQ(buffers(1022), std::vector<std::size_t>({1024, 1023}));
    EXPECT_EQ(buffers(1023), std::vector<std::size_t>({1024, 2048, 1024}));
    EXPECT_EQ(buffers(2046), std::vector<std::size_t>({1024, 2048, 2047}));
    EXPECT_EQ(buffers(2047), std::vector<std::size_t>({1024, 2048, 4096, 2048}));
}

TEST(FormatString, WideCharacterThatCannotBeConvertedThrows) {
    EXPECT_THROW(Formatted("%ls", L"\u65e5"), std::runtime_error);
}

TEST_F(LogSystemTest, RecordIsALineWithTimeLevelModuleAndMessage) {
    const auto before = static_cast<std::int64_t>(std::time(nullptr));
    const std::string output =
        Writer(OutputFile(), {Error("crash", "GetTempPath failed")}).Finish();
    const auto afterwards = static_cast<std::int64_t>(std::time(nullptr));
    EXPECT_EQ(FileText(profile.Log()), output);
    std::smatch match;
    ASSERT_TRUE(std::regex_match(
        output, match, std::regex(R"(\[(\d+)\]\[ERROR\]\[crash\]:\tGetTempPath failed\n)")))
        << output;
    EXPECT_GE(std::stoll(match[1]), before);
    EXPECT_LE(std::stoll(match[1]), afterwards);
}

TEST_F(LogSystemTest, OnlyDebugAndWhatIsLessSevereIsDropped) {
    std::vector<std::string> commands;
    for (const int level : {0, 1, 2, 3, 4, 8, 16, 32, 64, 128, 255, 256, 257, 512, 1024, 0x4000}) {
        commands.push_back(Text(level, "m", "printed"));
        commands.push_back(Command("record", level, "m", "complete"));
    }
    std::string expected;
    for (const char* const name : {"NONE", "EMERGENCY", "ALERT", "UNKNOWN", "CRITICAL", "ERROR",
                                   "WARN", "WARN1", "WARN2", "WARN3", "UNKNOWN", "INFO"})
        expected += std::string("[") + name + "][m]:\tprinted\n[" + name + "][m]:\tcomplete\n";
    EXPECT_EQ(Written(commands), expected);
}

TEST_F(LogSystemTest, DroppedRecordDoesNotMakeTheFile) {
    const Result result = Run({Text(kLogDebug, "m", "dropped")});
    EXPECT_EQ(result.output, "");
    EXPECT_FALSE(std::filesystem::exists(profile.LogFolder()));
}

TEST_F(LogSystemTest, ModulesAreThoseOfTheVariableInWhateverCase) {
    EXPECT_EQ(Filtered(L"crash,Server",
                       {Error("CRASH", "1"), Error("crash ", "2"), Error(" crash", "3"),
                        Error("server", "4"), Error("cras", "5"), Error("crash,Server", "6"),
                        Error("", "7"), Command("record", 8, "other", "8"),
                        Command("record", 8, "cRaSh", "9")}),
              "[ERROR][CRASH]:\t1\n[ERROR][server]:\t4\n[ERROR][cRaSh]:\t9\n");
}

TEST_F(LogSystemTest, BlanksInTheVariableAreKept) {
    EXPECT_EQ(Filtered(L"a, b", {Error("b", "1"), Error(" b", "2"), Error("a", "3")}),
              "[ERROR][ b]:\t2\n[ERROR][a]:\t3\n");
}

TEST_F(LogSystemTest, FirstRecordIsWrittenWhateverItsModule) {
    const EnvironmentVariable modules(L"LOG_MODULES", L"other");
    EXPECT_EQ(Written({Error("crash", "first"), Error("crash", "second"), Error("other", "third")}),
              "[ERROR][crash]:\tfirst\n[ERROR][other]:\tthird\n");
}

TEST_F(LogSystemTest, DroppedLevelIsNoFirstRecord) {
    const EnvironmentVariable modules(L"LOG_MODULES", L"other");
    EXPECT_EQ(Written({Text(kLogDebug, "crash", "dropped"), Error("crash", "first")}),
              "[ERROR][crash]:\tfirst\n");
}

TEST_F(LogSystemTest, AllModulesAreWantedWithoutTheVariable) {
    EXPECT_EQ(Filtered(nullptr, {Error("a", "1"), Error("", "2")}),
              "[ERROR][a]:\t1\n[ERROR][]:\t2\n");
}

TEST_F(LogSystemTest, AllModulesAreWantedWithAnEmptyVariable) {
    EXPECT_EQ(Filtered(L"", {Error("a", "1"), Error("", "2")}), "[ERROR][a]:\t1\n[ERROR][]:\t2\n");
}

TEST_F(LogSystemTest, EmptyPieceOfTheVariableIsTheEmptyModule) {
    EXPECT_EQ(Filtered(L"a,,b", {Error("", "1"), Error("c", "2"), Error("b", "3")}),
              "[ERROR][]:\t1\n[ERROR][b]:\t3\n");
}

TEST_F(LogSystemTest, VariableIsReadOnce) {
    EXPECT_EQ(
        Filtered(L"a", {Command("variable", "LOG_MODULES", "b"), Error("a", "1"), Error("b", "2")}),
        "[ERROR][a]:\t1\n");
}

TEST_F(LogSystemTest, FileKeeps4096BytesOfARecordAndStandardOutputAll) {
    const std::string head = "[ERROR][m]:\t";
    // In front of the message are the time, which has ten digits, and the head.
    const std::size_t longest = 4096 - 12 - head.size() - 1;
    const std::vector<std::size_t> lengths = {0,    1022, 1023,    1024,        4095,
                                              4096, 4097, longest, longest + 1, 1'000'000};
    std::vector<std::string> commands;
    for (const std::size_t length : lengths)
        commands.push_back(Command("length", 8, "m", length));
    const Result result = Run(commands);
    const std::vector<std::string> output = Lines(result.output);
    const std::vector<std::string> file = Lines(result.file);
    ASSERT_EQ(output.size(), lengths.size());
    ASSERT_EQ(file.size(), lengths.size());
    for (std::size_t index = 0; index < lengths.size(); ++index) {
        const std::size_t length = lengths[index];
        EXPECT_TRUE(output[index] == head + std::string(length, 'x')) << length;
        EXPECT_TRUE(file[index] == head + (length <= longest
                                               ? std::string(length, 'x')
                                               : std::string(longest + 1, 'x') + "..."))
            << length << ' ' << file[index].size();
    }
}

TEST_F(LogSystemTest, PercentSignsAndLineEndsInModuleAndMessageAreOnlyText) {
    const std::string hostile = "%s%n%d%1000000d\t100% %";
    EXPECT_EQ(Written({Error(hostile, hostile), Command("record", 8, hostile, hostile),
                       Error("a]\n[b", "c\nd"), Error(std::string(3000, 'm'), "long")}),
              "[ERROR][" + hostile + "]:\t" + hostile + "\n[ERROR][" + hostile + "]:\t" + hostile +
                  "\n[ERROR][a]\n[b]:\tc\nd\n[ERROR][" + std::string(3000, 'm') + "]:\tlong\n");
}

TEST_F(LogSystemTest, ModuleLongerThanARecordIsCutInTheFile) {
    const std::string module(10'000, 'm');
    const Result result = Run({Error(module, "message")});
    EXPECT_EQ(result.output, "[ERROR][" + module + "]:\tmessage\n");
    EXPECT_EQ(result.file, "[ERROR][" + std::string(4096 - 12 - 8, 'm') + "...\n");
}

TEST_F(LogSystemTest, FormatIsThatOfPrintf) {
    EXPECT_EQ(Written({"formats"}), "[ERROR][m]:\t-7  2.50|ab  |!% 123456789abc wide\n");
}

TEST_F(LogSystemTest, CharacterThatCannotBeConvertedIsALineOnStandardOutput) {
    const Result result = Run({"unconvertible", Error("m", "next")});
    EXPECT_EQ(result.output,
              std::string(kExceptionLine) +
                  "a wide character in the message can't be converted\n[ERROR][m]:\tnext\n");
    EXPECT_EQ(result.file, "[ERROR][m]:\tnext\n");
}

}  // namespace
