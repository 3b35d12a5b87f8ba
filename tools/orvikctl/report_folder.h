#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "json.h"

/// The new folder of a report, to which only LocalSystem, administrators and the user who runs
/// this program have access. It is removed again with what was written to it unless Keep() is
/// called.
class ReportFolder {
public:
    /// Throws Failure if `folder` exists already, or cannot be made.
    explicit ReportFolder(const std::filesystem::path& folder);
    ~ReportFolder();

    ReportFolder(const ReportFolder&) = delete;
    ReportFolder& operator=(const ReportFolder&) = delete;

    /// Each writes or makes a new file, named relative to the folder. All throw FileError. A file
    /// that cannot be written completely is deleted.
    void Write(const std::filesystem::path& name, const std::string& content);
    void Write(const std::filesystem::path& name, const Json& content);
    void Copy(const std::filesystem::path& source, const std::filesystem::path& name);
    void MakeFolder(const std::filesystem::path& name);

    void Keep() noexcept { kept = true; }

private:
    std::filesystem::path path;
    std::vector<std::filesystem::path> made;  // all files and folders, in this order
    bool kept = false;
};
