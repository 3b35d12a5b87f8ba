#pragma once

#include <cstdint>
#include <string>

#include <boost/filesystem/fstream.hpp>
#include <boost/filesystem/path.hpp>
#include <boost/thread/recursive_mutex.hpp>

/// A text file to which records are appended, each flushed at once. The first Write() opens it.
/// Other processes may have it open too.
///
/// Thread: any. Records of different threads are written whole.
class LogFile {
public:
    /// `maximumRecordLength` is in bytes, 0 for no limit. Opens nothing.
    LogFile(boost::filesystem::path filePath, std::uint64_t maximumRecordLength);

    /// Closes the file. A failure to close it goes unreported.
    virtual ~LogFile();

    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    /// Appends `record`, which includes its own line end. A longer one than the maximum length is
    /// cut to that length, and "...\n" follows. Makes the folder and its parents if they are
    /// missing. Throws std::ios_base::failure and boost::filesystem::filesystem_error; a file that
    /// could not be opened is tried again by the next call.
    void Write(const std::string& record);

    /// Closes the file if it is open; the next Write() opens it again.
    /// Throws std::ios_base::failure.
    void Close();

private:
    void Open();

    boost::filesystem::path path;
    boost::filesystem::ofstream stream;  // throws for each failure
    boost::recursive_mutex lock;
    std::uint64_t maximumLength;
};

/// Where logs are: "/AppData/Local/Orvik" below the user's profile (the environment variable
/// USERPROFILE), or below the root if that isn't set. Throws std::bad_alloc.
boost::filesystem::path LogFolder();

/// The path of the log `name`: `name`.txt in the folder.
boost::filesystem::path LogPath(const boost::filesystem::path& folder, const std::string& name);

/// Makes the log `name`.txt of the folder `name`.old.txt, in the place of an older one, if it has
/// more than 5 MiB. Throws boost::filesystem::filesystem_error.
void RotateLogFiles(const boost::filesystem::path& folder, const std::string& name);
