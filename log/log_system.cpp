#include "log/log_system.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <exception>
#include <sstream>
#include <stdexcept>

#include <windows.h>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/thread/lock_guard.hpp>

#include "log/log_file.h"

namespace {

constexpr std::uint64_t kMaximumRecordLength = 4096;  // bytes

/// Runs `write`, reports what it throws on standard output, and flushes that in every case.
template <typename Function>
void RunGuarded(Function write) noexcept {
    try {
        write();
    } catch (const std::exception& exception) {
        std::printf("Exception encountered when attempting to log: %s\n", exception.what());
    } catch (...) {
        std::printf("Uncaught exception encountered when attempting to log!\n");
    }
    std::fflush(stdout);
}

}  // namespace

const char* LevelName(LogLevel level) noexcept {
    switch (level) {
        case kLogNone:
            return "NONE";
        case kLogEmergency:
            return "EMERGENCY";
        case kLogAlert:
            return "ALERT";
        case kLogCritical:
            return "CRITICAL";
        case kLogError:
            return "ERROR";
        case kLogWarn:
            return "WARN";
        case kLogWarn1:
            return "WARN1";
        case kLogWarn2:
            return "WARN2";
        case kLogWarn3:
            return "WARN3";
        case kLogInfo:
            return "INFO";
        case kLogDebug:
            return "DEBUG";
        case kLogAll:
            return "ALL";
        default:
            return "UNKNOWN";
    }
}

void LogPrintf(LogLevel level, const char* module, const char* file, int line, const char* format,
               ...) noexcept {
    std::va_list arguments;
    va_start(arguments, format);
    RunGuarded([&] {
        if (LogSystem::Get().IsWanted(level, module))
            LogRecord(level, module, file, line, FormatString(format, arguments));
    });
    va_end(arguments);
}

void LogRecord(LogLevel level, const char* module, const char* /*file*/, int /*line*/,
               const std::string& message) noexcept {
    RunGuarded([&] {
        LogSystem& log = LogSystem::Get();
        if (!log.IsWanted(level, module))
            return;
        std::ostringstream stream;
        stream << '[' << std::int64_t{std::time(nullptr)} << "][" << LevelName(level) << "]["
               << module << "]:\t" << message << '\n';
        const std::string record = stream.str();
        std::printf("%s", record.c_str());
        log.EnsureOpen();
        log.Write(record);
    });
}

std::string FormatString(const char* format, std::va_list arguments) {
    for (std::size_t size = 1024;; size *= 2) {
        const auto buffer = std::make_unique_for_overwrite<char[]>(size);
        std::va_list copy;
        va_copy(copy, arguments);
        errno = 0;
        // One byte less than there is, kept on purpose: up to size - 2 characters fit.
        const int length = ::_vsnprintf_s(buffer.get(), size - 1, _TRUNCATE, format, copy);
        va_end(copy);
        if (length >= 0)
            return {buffer.get(), static_cast<std::size_t>(length)};
        if (errno == EILSEQ)
            throw std::runtime_error("a wide character in the message can't be converted");
    }
}

LogSystem& LogSystem::Get() {
    static boost::mutex creation;
    static LogSystem* instance = nullptr;
    const boost::lock_guard guard(creation);
    if (instance == nullptr)
        instance = new LogSystem;
    return *instance;
}

LogSystem::LogSystem() : logFolder(LogFolder()) {}

LogSystem::~LogSystem() = default;

bool LogSystem::IsWanted(LogLevel level, const char* module) const {
    return level <= maximumLevel && IsModuleEnabled(module);
}

bool LogSystem::IsModuleEnabled(const char* module) const {
    if (!modulesRead.load(std::memory_order_acquire) || modules.empty())
        return true;
    return std::any_of(modules.begin(), modules.end(), [module](const std::string& entry) {
        return boost::algorithm::iequals(entry, module);
    });
}

void LogSystem::EnsureOpen() {
    const boost::lock_guard guard(lock);
    if (opened)
        return;
    logFile = std::make_unique<LogFile>(LogPath(logFolder, logName), kMaximumRecordLength);
    RotateLogFiles(logFolder, logName);

    std::string names(std::size_t{3} * 32'767, '\0');  // no variable is longer, as UTF-8
    names.resize(
        ::GetEnvironmentVariableA("LOG_MODULES", names.data(), static_cast<DWORD>(names.size())));
    if (!names.empty())
        boost::algorithm::split(modules, names, boost::algorithm::is_any_of(","));
    modulesRead.store(true, std::memory_order_release);
    opened = true;
}

void LogSystem::Write(const std::string& record) {
    logFile->Write(record);
}
