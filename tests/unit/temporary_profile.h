#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <windows.h>

#include "windows/unique_handle.h"

/// An environment variable has another value while this lives; null: it isn't set.
class EnvironmentVariable {
public:
    EnvironmentVariable(const wchar_t* variable, const wchar_t* value)
        : name(variable),
          previous(32'767, L'\0') {
        previous.resize(::GetEnvironmentVariableW(name, previous.data(), 32'767));
        ::SetEnvironmentVariableW(name, value);
    }
    ~EnvironmentVariable() {
        ::SetEnvironmentVariableW(name, previous.empty() ? nullptr : previous.c_str());
    }

    EnvironmentVariable(const EnvironmentVariable&) = delete;
    EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

private:
    const wchar_t* name;
    std::wstring previous;
};

/// An empty folder that is the user's profile while this lives, and is removed afterwards.
class TemporaryProfile {
public:
    TemporaryProfile() : variable(L"USERPROFILE", Make(folder).c_str()) {}
    ~TemporaryProfile() {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }

    TemporaryProfile(const TemporaryProfile&) = delete;
    TemporaryProfile& operator=(const TemporaryProfile&) = delete;

    const std::filesystem::path& Folder() const noexcept { return folder; }
    std::filesystem::path LogFolder() const { return folder / "AppData" / "Local" / "Orvik"; }
    std::filesystem::path Log() const { return LogFolder() / "log.txt"; }
    std::filesystem::path OldLog() const { return LogFolder() / "log.old.txt"; }

private:
    static const std::wstring& Make(std::filesystem::path& folder) {
        static int count = 0;
        folder = std::filesystem::temp_directory_path() /
                 ("orvik-test-" + std::to_string(::GetCurrentProcessId()) + "-" +
                  std::to_string(++count));
        std::filesystem::remove_all(folder);  // of a process that was ended
        std::filesystem::create_directories(folder);
        return folder.native();
    }

    std::filesystem::path folder;
    EnvironmentVariable variable;
};

/// The bytes of a file, which others may have open; "" if there is none.
inline std::string FileBytes(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios_base::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A file's text, with the line ends of the C language.
inline std::string FileText(const std::filesystem::path& path) {
    std::string text = FileBytes(path);
    std::erase(text, '\r');
    return text;
}

/// Makes a file of that many bytes, with `start` at its start.
inline void MakeFile(const std::filesystem::path& path, std::uintmax_t size = 0,
                     const std::string& start = {}) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios_base::binary) << start;
    std::filesystem::resize_file(path, size);
}

/// The file held open for reading and writing, as another process may do; `sharing` is what it lets
/// others do. Empty if it can't be opened.
inline UniqueHandle HoldOpen(const std::filesystem::path& path, DWORD sharing) {
    return OwnFile(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, sharing, nullptr,
                                 OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}
