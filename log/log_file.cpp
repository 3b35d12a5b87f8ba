#include "log/log_file.h"

#include <ios>
#include <utility>

#include <windows.h>
#include <boost/filesystem/operations.hpp>
#include <boost/thread/lock_guard.hpp>

// Version 4 of the library, and std::filesystem, would take the second path of LogFolder() as a
// path of its own, and not as one below the first.
static_assert(BOOST_FILESYSTEM_VERSION == 3);

namespace fs = boost::filesystem;

LogFile::LogFile(fs::path filePath, std::uint64_t maximumRecordLength)
    : path(std::move(filePath)),
      maximumLength(maximumRecordLength) {
    stream.exceptions(std::ios_base::failbit | std::ios_base::badbit);
}

LogFile::~LogFile() {
    try {
        Close();
    } catch (const std::ios_base::failure&) {
        // Not reported. Write() flushes each record and throws if that fails.
    }
}

void LogFile::Open() {
    const fs::path folder = path.parent_path();
    if (!fs::exists(fs::status(folder)))
        fs::create_directories(folder);
    stream.clear();  // an earlier failure may have set its error state
    // Not the stream's own open(): with GNU's library that converts the path to the ANSI code page,
    // which doesn't have every user's name.
    if (stream.rdbuf()->open(path.c_str(), std::ios_base::out | std::ios_base::app) == nullptr)
        stream.setstate(std::ios_base::failbit);
}

void LogFile::Write(const std::string& record) {
    const boost::lock_guard guard(lock);
    if (!stream.is_open())
        Open();
    if (maximumLength != 0 && record.size() > maximumLength) {
        stream.write(record.data(), static_cast<std::streamsize>(maximumLength));
        stream.write("...\n", 4);
    } else {
        stream.write(record.data(), static_cast<std::streamsize>(record.size()));
    }
    stream.flush();
}

void LogFile::Close() {
    const boost::lock_guard guard(lock);
    if (stream.is_open())
        stream.close();
}

fs::path LogFolder() {
    std::wstring profile(32'767, L'\0');  // no variable is longer
    profile.resize(::GetEnvironmentVariableW(L"USERPROFILE", profile.data(),
                                             static_cast<DWORD>(profile.size())));
    // Appends, with no separator between: the second has one.
    return fs::path(profile) / L"/AppData/Local/Orvik";
}

fs::path LogPath(const fs::path& folder, const std::string& name) {
    return folder / (name + ".txt");
}

void RotateLogFiles(const fs::path& folder, const std::string& name) {
    constexpr std::uintmax_t kMostBytes = std::uintmax_t{5} * 1024 * 1024;
    const fs::path log = LogPath(folder, name);
    if (!fs::exists(fs::status(log)) || fs::file_size(log) <= kMostBytes)
        return;
    const fs::path old = LogPath(folder, name + ".old");
    fs::remove(old);
    fs::rename(log, old);
}
