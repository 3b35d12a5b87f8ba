#include "found_files.h"

#include "partial_file.h"
#include "windows/unique_handle.h"

std::vector<WIN32_FIND_DATAW> FindFiles(const std::filesystem::path& folder, const wchar_t* pattern,
                                        const char* failure) {
    WIN32_FIND_DATAW entry{};
    const UniqueSearch search = OwnSearch(::FindFirstFileW((folder / pattern).c_str(), &entry));
    if (!search && ::GetLastError() != ERROR_FILE_NOT_FOUND)
        throw FileError(failure, folder);
    std::vector<WIN32_FIND_DATAW> files;
    for (BOOL more = search != nullptr; more; more = ::FindNextFileW(search.get(), &entry))
        files.push_back(entry);
    return files;
}
