#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/filesystem/path.hpp>
#include <boost/thread/mutex.hpp>

class LogFile;

/// How severe a record is: one bit each, and a smaller number is more severe.
using LogLevel = std::uint16_t;
inline constexpr LogLevel kLogNone = 0x0000;
inline constexpr LogLevel kLogEmergency = 0x0001;
inline constexpr LogLevel kLogAlert = 0x0002;
inline constexpr LogLevel kLogCritical = 0x0004;
inline constexpr LogLevel kLogError = 0x0008;
inline constexpr LogLevel kLogWarn = 0x0010;
inline constexpr LogLevel kLogWarn1 = 0x0020;
inline constexpr LogLevel kLogWarn2 = 0x0040;
inline constexpr LogLevel kLogWarn3 = 0x0080;
inline constexpr LogLevel kLogInfo = 0x0100;
inline constexpr LogLevel kLogDebug = 0x0200;
inline constexpr LogLevel kLogAll = 0x0400;

/// The name that a record shows, "ERROR" for kLogError; "UNKNOWN" for a value that is none of the
/// constants above, also for two of them together.
const char* LevelName(LogLevel level) noexcept;

/// Writes one record to standard output and to the log file, if its level is kLogInfo or more
/// severe and its module is wanted. `format` and what follows it are printf's, narrow. `file` and
/// `line` are those of the call; they are not written. No argument but those for the format may be
/// null.
///
/// Thread: any. Never throws: a failure is a line on standard output.
void LogPrintf(LogLevel level, const char* module, const char* file, int line, const char* format,
               ...) noexcept;

/// The same with a finished message.
void LogRecord(LogLevel level, const char* module, const char* file, int line,
               const std::string& message) noexcept;

/// The text that printf would write. Throws std::bad_alloc, and std::runtime_error for an argument
/// that can't be converted (a wide character that the C locale doesn't have).
std::string FormatString(const char* format, std::va_list arguments);

/// The log of the process: decides which records are written, and owns their file. Used by
/// LogPrintf() and LogRecord().
///
/// A record is a line "[seconds since 1970, UTC][level][module]:\tmessage\n". The environment
/// variable LOG_MODULES, read once, lists the modules whose records are wanted, separated by
/// commas; without it all are.
///
/// Thread: any.
class LogSystem {
public:
    /// The one instance, made by the first call and never destroyed.
    /// Throws std::bad_alloc and boost::thread_resource_error.
    static LogSystem& Get();

    virtual ~LogSystem();

    LogSystem(const LogSystem&) = delete;
    LogSystem& operator=(const LogSystem&) = delete;

    /// Whether records of this level and module are written.
    bool IsWanted(LogLevel level, const char* module) const;

    /// True if LOG_MODULES lists the module (case does not matter), or has not been read or set.
    bool IsModuleEnabled(const char* module) const;

    /// Before the first record is written: rotates the file (see RotateLogFiles()) and reads
    /// LOG_MODULES. After a failure the next call tries again. Kept on purpose: the first record is
    /// written even if LOG_MODULES does not list its module, because that is checked before.
    /// Throws as RotateLogFiles(), and boost::thread_resource_error.
    void EnsureOpen();

    /// Hands a record to the file. Only after EnsureOpen() has returned. Throws as
    /// LogFile::Write().
    void Write(const std::string& record);

private:
    LogSystem();

    std::string logName = "log";
    boost::filesystem::path logFolder;
    std::unique_ptr<LogFile> logFile;  // none before the first record
    LogLevel maximumLevel = kLogInfo;
    bool opened = false;               // EnsureOpen() has done all of it
    std::vector<std::string> modules;  // not changed once `modulesRead` is set
    std::atomic<bool> modulesRead = false;
    boost::mutex lock;
};
