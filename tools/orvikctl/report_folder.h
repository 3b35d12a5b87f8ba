#pragma once

#include <filesystem>
#include <string>

#include "json.h"

/// The new folder of a report. It is removed again with its files unless Keep() is called, so that
/// a report that failed leaves nothing behind.
class ReportFolder {
public:
    /// Throws Failure if `folder` exists already, or cannot be made.
    explicit ReportFolder(const std::filesystem::path& folder);
    ~ReportFolder();

    ReportFolder(const ReportFolder&) = delete;
    ReportFolder& operator=(const ReportFolder&) = delete;

    /// Each writes or makes a new file, named relative to the folder. All throw FileError.
    void Write(const std::filesystem::path& name, const std::string& content);
    void Write(const std::filesystem::path& name, const Json& content);
    void Copy(const std::filesystem::path& source, const std::filesystem::path& name);
    void MakeFolder(const std::filesystem::path& name);

    void Keep() noexcept { kept = true; }

private:
    std::filesystem::path path;
    bool kept = false;
};
