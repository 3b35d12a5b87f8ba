#include "service_dumps.h"

#include <string>

#include "partial_file.h"
#include "windows/unique_handle.h"

namespace {

/// The service names its dumps with identifiers: 36 characters, and ".dmp".
bool IsDumpName(const std::wstring& name) {
    return name.size() == 40 && name[8] == L'-' && name[13] == L'-' && name[18] == L'-' &&
           name[23] == L'-';
}

}  // namespace

std::optional<Dump> NewestDump(const std::filesystem::path& folder) {
    WIN32_FIND_DATAW entry{};
    const UniqueSearch search = OwnSearch(::FindFirstFileW((folder / L"*.dmp").c_str(), &entry));
    if (!search && ::GetLastError() != ERROR_FILE_NOT_FOUND)
        throw FileError("cannot list the dumps in", folder);
    std::optional<Dump> newest;
    for (BOOL more = search != nullptr; more; more = ::FindNextFileW(search.get(), &entry)) {
        if (IsDumpName(entry.cFileName) &&
            (!newest || ::CompareFileTime(&newest->written, &entry.ftLastWriteTime) < 0))
            newest = {entry.cFileName, entry.ftLastWriteTime};
    }
    return newest;
}
