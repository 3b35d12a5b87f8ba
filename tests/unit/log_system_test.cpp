// The log of a process. It exists once and for good, so each test has a process of its own that
// writes (log_writer.cpp), with a profile of its own.
#include "log/log_system.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "guarded_heap.h"
#include "log_writer.h"
#include "temporary_profile.h"

namespace {

constexpr DWORD kDeadline = 60'000;  // milliseconds
constexpr std::uintmax_t kRotated = 5'242'881;
constexpr char kExceptionLine[] = "Exception encountered when attempting to log: ";

/// A command of the writer, as one argument for it.
template <typename... Parts>
std::string Command(const char* name, const Parts&... parts) {
    std::ostringstream text;
    text << name;
    ((text << log_writer::kSeparator << parts), ...);
    return text.str();
}
std::string Text(int level, const std::string& module, const std::string& message) {
    return Command("text", level, module, message);
}
std::string Error(const std::string& module, const std::string& message) {
    return Text(kLogError, module, message);
}

/// A process that writes; it takes this one's environment as it is now.
class Writer {
public:
    Writer(std::filesystem::path outputPath, const std::vector<std::string>& commands)
        : outputFile(std::move(outputPath)) {
        std::string arguments = "log_writer " + name;
        for (const std::string& command : commands)
            arguments += " \"" + command + "\"";  // no test needs a quote or a last backslash

        SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
        const UniqueHandle file = OwnFile(
            ::CreateFileW(outputFile.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                          &inherited, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
        std::array<char, MAX_PATH> path{};
        ::GetModuleFileNameA(nullptr, path.data(), MAX_PATH);
        const std::string program =
            (std::filesystem::path(path.data()).parent_path() / "log_writer.exe").string();
        STARTUPINFOA startup{};
        startup.cb = sizeof(startup);
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdOutput = file.get();
        startup.hStdError = ::GetStdHandle(STD_ERROR_HANDLE);
        PROCESS_INFORMATION information{};
        if (!::CreateProcessA(program.c_str(), arguments.data(), nullptr, nullptr, TRUE, 0, nullptr,
                              nullptr, &startup, &information))
            throw std::runtime_error("can't start " + program);
        process.reset(information.hProcess);
        ::CloseHandle(information.hThread);
    }
    ~Writer() { ::TerminateProcess(process.get(), 1); }

    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    /// Returns when the writer has come to "meet" and waits.
    void Meet() {
        const std::array<HANDLE, 2> either = {here.get(), process.get()};
        ASSERT_EQ(::WaitForMultipleObjects(2, either.data(), FALSE, kDeadline), WAIT_OBJECT_0)
            << Output();
    }
    void GoOn() { ::SetEvent(go.get()); }

    /// Standard output, when the process has ended as it should.
    std::string Finish() {
        EXPECT_EQ(::WaitForSingleObject(process.get(), kDeadline), WAIT_OBJECT_0);
        DWORD exitCode = 0;
        ::GetExitCodeProcess(process.get(), &exitCode);
        EXPECT_EQ(exitCode, 0U);
        return Output();
    }
    /// Standard output until now.
    std::string Output() const { return FileText(outputFile); }

private:
    static std::string NewName() {
        static int count = 0;
        return std::to_string(::GetCurrentProcessId()) + '-' + std::to_string(++count);
    }

    std::filesystem::path outputFile;
    std::string name = NewName();
    UniqueHandle here{
        ::CreateEventA(nullptr, FALSE, FALSE, (log_writer::kHereEvent + name).c_str())};
    UniqueHandle go{::CreateEventA(nullptr, FALSE, FALSE, (log_writer::kGoEvent + name).c_str())};
    UniqueHandle process;
};

/// "[ERROR][m]:\tmessage\n" and so on: records without their times, which must be numbers.
std::string WithoutTimes(const std::string& records) {
    static const std::regex time(R"((^|\n)\[\d+\](?=\[))");
    return std::regex_replace(records, time, "$1");
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

class LogSystemTest : public ::testing::Test {
protected:
    /// What the writer has put out and what is in the file then, both without times.
    struct Result {
        std::string output;
        std::string file;
    };
    Result Run(const std::vector<std::string>& commands) {
        const std::string output = Writer(OutputFile(), commands).Finish();
        return {WithoutTimes(output), WithoutTimes(FileText(profile.Log()))};
    }
    /// For records that arrive at both places alike.
    std::string Written(const std::vector<std::string>& commands) {
        const Result result = Run(commands);
        EXPECT_EQ(result.output, result.file);
        return result.file;
    }
    /// With LOG_MODULES set: the records behind the first one, which is written in any case.
    std::string Filtered(const wchar_t* variable, std::vector<std::string> commands) {
        const EnvironmentVariable modules(L"LOG_MODULES", variable);
        commands.insert(commands.begin(), Error("first", ""));
        const std::string records = Written(commands);
        const std::string first = "[ERROR][first]:\t\n";
        EXPECT_EQ(records.substr(0, first.size()), first);
        return records.substr(first.size());
    }
    std::filesystem::path OutputFile() const { return profile.Folder() / "output.txt"; }

    const TemporaryProfile profile;
    const EnvironmentVariable noModules{L"LOG_MODULES", nullptr};
};

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

/// Checks that these are the records of "many", whole, and in order for each thread.
void ExpectMany(const std::string& records, int threads, int count, int longest) {
    std::vector<int> next(threads, 0);
    const std::string filling(longest, 'x');
    std::string_view rest = records;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        int thread = -1;
        int number = -1;
        int head = 0;  // characters in front of the filling
        ASSERT_EQ(
            std::sscanf(line.data(), "[%*d][ERROR][many]:\t%d %d|%n", &thread, &number, &head), 2)
            << line;
        ASSERT_TRUE(thread >= 0 && thread < threads && number == next[thread]) << line;
        ++next[thread];
        ASSERT_EQ(line.substr(head), std::string_view(filling).substr(0, number % (longest + 1)));
        ASSERT_LT(line.size(), rest.size());  // there is a line end
        rest.remove_prefix(line.size() + 1);
    }
    EXPECT_EQ(next, std::vector<int>(threads, count));
}

TEST_F(LogSystemTest, RecordsOfManyThreadsAreWholeAndInTheirOrder) {
    const std::string output = Writer(OutputFile(), {Command("many", 8, 10'000, 70)}).Finish();
    ExpectMany(output, 8, 10'000, 70);
    ExpectMany(FileText(profile.Log()), 8, 10'000, 70);
}

TEST_F(LogSystemTest, LongRecordsOfManyThreadsAreWhole) {
    const std::string output = Writer(OutputFile(), {Command("many", 8, 500, 4000)}).Finish();
    ExpectMany(output, 8, 500, 4000);
    ExpectMany(FileText(profile.Log()), 8, 500, 4000);
}

TEST_F(LogSystemTest, TwoProcessesWriteTheFileInTurn) {
    Writer one(OutputFile(),
               {Error("one", "1"), "meet", Error("one", "3"), "meet", Error("one", "5")});
    ASSERT_NO_FATAL_FAILURE(one.Meet());
    Writer two(profile.Folder() / "two.txt", {Error("two", "2"), "meet", Error("two", "4")});
    ASSERT_NO_FATAL_FAILURE(two.Meet());
    one.GoOn();
    ASSERT_NO_FATAL_FAILURE(one.Meet());
    two.GoOn();
    EXPECT_EQ(WithoutTimes(two.Finish()), "[ERROR][two]:\t2\n[ERROR][two]:\t4\n");
    one.GoOn();
    EXPECT_EQ(WithoutTimes(one.Finish()), "[ERROR][one]:\t1\n[ERROR][one]:\t3\n[ERROR][one]:\t5\n");
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())),
              "[ERROR][one]:\t1\n[ERROR][two]:\t2\n[ERROR][one]:\t3\n[ERROR][two]:\t4\n"
              "[ERROR][one]:\t5\n");
}

TEST_F(LogSystemTest, LargeFileIsRotatedBeforeTheFirstRecordAndNeverAgain) {
    MakeFile(profile.Log(), kRotated, "before");
    Writer writer(OutputFile(), {Error("m", "1"), "meet", Error("m", "2")});
    ASSERT_NO_FATAL_FAILURE(writer.Meet());
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())), "[ERROR][m]:\t1\n");
    EXPECT_EQ(FileBytes(profile.OldLog()).substr(0, 6), "before");
    std::filesystem::resize_file(profile.Log(), kRotated);
    writer.GoOn();
    writer.Finish();
    EXPECT_EQ(FileBytes(profile.OldLog()).substr(0, 6), "before");
    EXPECT_TRUE(FileText(profile.Log()).ends_with("[ERROR][m]:\t2\n"));
}

TEST_F(LogSystemTest, FileOfFiveMebibytesIsAppendedTo) {
    MakeFile(profile.Log(), kRotated - 1);
    Run({Error("m", "1")});
    EXPECT_FALSE(std::filesystem::exists(profile.OldLog()));
    EXPECT_GT(std::filesystem::file_size(profile.Log()), kRotated);
    EXPECT_TRUE(FileText(profile.Log()).ends_with("[ERROR][m]:\t1\n"));
}

/// What is put out for each record that can't be written: itself, and why not.
void ExpectFailure(const std::string& output, const std::string& records) {
    std::string printed;
    std::size_t failures = 0;
    for (const std::string& line : Lines(WithoutTimes(output))) {
        if (line.starts_with(kExceptionLine) && line.size() > sizeof(kExceptionLine))
            ++failures;
        else
            printed += line + '\n';
    }
    EXPECT_EQ(printed, records);
    EXPECT_EQ(failures, Lines(records).size()) << output;
}

TEST_F(LogSystemTest, FileThatCannotBeOpenedIsALineForEachRecordUntilItCan) {
    std::filesystem::create_directories(profile.Log());
    Writer writer(OutputFile(), {Error("m", "1"), Error("m", "2"), "meet", Error("m", "3")});
    ASSERT_NO_FATAL_FAILURE(writer.Meet());
    ExpectFailure(writer.Output(), "[ERROR][m]:\t1\n[ERROR][m]:\t2\n");
    std::filesystem::remove(profile.Log());
    writer.GoOn();
    writer.Finish();
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())), "[ERROR][m]:\t3\n");
}

TEST_F(LogSystemTest, DiskThatIsFullIsALineForEachRecord) {
    Writer writer(OutputFile(), {"full", Error("m", "1"), Error("m", "2")});
    writer.Finish();
    ExpectFailure(writer.Output(), "[ERROR][m]:\t1\n[ERROR][m]:\t2\n");
    EXPECT_EQ(FileText(profile.Log()), "");
}

TEST_F(LogSystemTest, FolderThatCannotBeMadeIsALineForEachRecordUntilItCan) {
    MakeFile(profile.Folder() / "AppData");
    Writer writer(OutputFile(), {Error("m", "1"), Error("m", "2"), "meet", Error("m", "3")});
    ASSERT_NO_FATAL_FAILURE(writer.Meet());
    ExpectFailure(writer.Output(), "[ERROR][m]:\t1\n[ERROR][m]:\t2\n");
    std::filesystem::remove(profile.Folder() / "AppData");
    writer.GoOn();
    writer.Finish();
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())), "[ERROR][m]:\t3\n");
}

TEST_F(LogSystemTest, RotationThatFailsIsTriedAgainAndModulesAreReadOnlyAfterIt) {
    const EnvironmentVariable modules(L"LOG_MODULES", L"wanted");
    MakeFile(profile.OldLog(), 3, "old");
    MakeFile(profile.Log(), kRotated, "new");
    UniqueHandle holder = HoldOpen(profile.OldLog(), FILE_SHARE_READ | FILE_SHARE_WRITE);
    ASSERT_TRUE(holder);
    Writer writer(OutputFile(), {Error("m", "1"), Error("m", "2"), "meet", Error("m", "3"),
                                 Error("m", "4"), Error("wanted", "5")});
    ASSERT_NO_FATAL_FAILURE(writer.Meet());
    ExpectFailure(writer.Output(), "[ERROR][m]:\t1\n[ERROR][m]:\t2\n");
    EXPECT_EQ(std::filesystem::file_size(profile.Log()), kRotated);
    holder.reset();
    writer.GoOn();
    writer.Finish();
    EXPECT_EQ(FileBytes(profile.OldLog()).substr(0, 3), "new");
    EXPECT_EQ(WithoutTimes(FileText(profile.Log())), "[ERROR][m]:\t3\n[ERROR][wanted]:\t5\n");
}

}  // namespace
