// Writes to the log what its arguments say, for log_system_test: each process has only one log.
// The first argument is the name of the meeting, each other one a command and its operands,
// separated by kSeparator.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include <io.h>

#include "import_hook.h"
#include "log/log_system.h"
#include "log_writer.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::_write) __imp_write;
}

namespace {

constexpr char kFile[] = "a file that is not written";
constexpr int kLine = 4321;

std::vector<std::string> Split(const char* text) {
    std::vector<std::string> parts(1);
    for (; *text != '\0'; ++text) {
        if (*text == log_writer::kSeparator)
            parts.emplace_back();
        else
            parts.back() += *text;
    }
    return parts;
}

/// Records "<thread> <number>|" and as many characters as make the length vary.
void WriteMany(int thread, int count, int longest) {
    for (int number = 0; number < count; ++number) {
        const std::string filling(static_cast<std::size_t>(number % (longest + 1)), 'x');
        LogPrintf(kLogError, "many", kFile, kLine, "%d %d|%s", thread, number, filling.c_str());
    }
}

void Run(const std::string& meeting, const std::vector<std::string>& command) {
    const auto number = [&command](std::size_t index) {
        return std::atoi(command.at(index).c_str());
    };
    const auto text = [&command](std::size_t index) { return command.at(index).c_str(); };
    if (command[0] == "text") {  // LEVEL MODULE MESSAGE
        LogPrintf(static_cast<LogLevel>(number(1)), text(2), kFile, kLine, "%s", text(3));
    } else if (command[0] == "record") {  // the same
        LogRecord(static_cast<LogLevel>(number(1)), text(2), kFile, kLine, command.at(3));
    } else if (command[0] == "length") {  // LEVEL MODULE LENGTH
        LogPrintf(static_cast<LogLevel>(number(1)), text(2), kFile, kLine, "%s",
                  std::string(static_cast<std::size_t>(number(3)), 'x').c_str());
    } else if (command[0] == "formats") {
        LogPrintf(kLogError, "m", kFile, kLine, "%d %5.2f|%-4s|%c%% %llx %ls", -7, 2.5, "ab", '!',
                  0x123456789abcULL, L"wide");
    } else if (command[0] == "unconvertible") {
        LogPrintf(kLogError, "m", kFile, kLine, "lost %ls", L"\u65e5");
    } else if (command[0] == "variable") {  // NAME VALUE
        ::SetEnvironmentVariableA(text(1), text(2));
    } else if (command[0] == "full") {  // from now on, as the C runtime reports a full disk
        static const ImportHook<decltype(&::_write)> full(&__imp_write,
                                                          [](int, const void*, unsigned) noexcept {
                                                              errno = ENOSPC;
                                                              return -1;
                                                          });
    } else if (command[0] == "meet") {
        const UniqueHandle here(
            ::OpenEventA(EVENT_MODIFY_STATE, FALSE, (log_writer::kHereEvent + meeting).c_str()));
        const UniqueHandle go(
            ::OpenEventA(SYNCHRONIZE, FALSE, (log_writer::kGoEvent + meeting).c_str()));
        if (!here || !go)
            std::exit(2);
        ::SetEvent(here.get());
        ::WaitForSingleObject(go.get(), INFINITE);
    } else if (command[0] == "many") {  // THREADS COUNT LONGEST
        std::vector<std::thread> threads;
        for (int thread = 0; thread < number(1); ++thread)
            threads.emplace_back(WriteMany, thread, number(2), number(3));
        for (std::thread& thread : threads)
            thread.join();
    } else {
        std::exit(2);
    }
}

}  // namespace

int main(int count, char** arguments) {
    for (int index = 2; index < count; ++index)
        Run(arguments[1], Split(arguments[index]));
    return 0;
}
