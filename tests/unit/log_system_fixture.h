// The log of a process. It exists once and for good, so each test has a process of its own that
// writes (log_writer.cpp), with a profile of its own.
#pragma once

#include <array>
#include <cstddef>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "log/log_system.h"
#include "log_writer.h"
#include "support/deadline.h"
#include "temporary_profile.h"
#include "windows/unique_handle.h"

inline constexpr char kExceptionLine[] = "Exception encountered when attempting to log: ";

/// A command of the writer, as one argument for it.
template <typename... Parts>
std::string Command(const char* name, const Parts&... parts) {
    std::ostringstream text;
    text << name;
    ((text << log_writer::kSeparator << parts), ...);
    return text.str();
}
inline std::string Text(int level, const std::string& module, const std::string& message) {
    return Command("text", level, module, message);
}
inline std::string Error(const std::string& module, const std::string& message) {
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
        ASSERT_EQ(::WaitForMultipleObjects(2, either.data(), FALSE, Deadline().MillisecondsLeft()),
                  WAIT_OBJECT_0)
            << Output();
    }
    void GoOn() { ::SetEvent(go.get()); }

    /// Standard output, when the process has ended as it should.
    std::string Finish() {
        EXPECT_EQ(::WaitForSingleObject(process.get(), Deadline().MillisecondsLeft()),
                  WAIT_OBJECT_0);
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
inline std::string WithoutTimes(const std::string& records) {
    static const std::regex time(R"((^|\n)\[\d+\](?=\[))");
    return std::regex_replace(records, time, "$1");
}

inline std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

class LogSystemTest : public ::testing::Test {
protected:
    /// The output of the writer and the content of the file then, both without times.
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
