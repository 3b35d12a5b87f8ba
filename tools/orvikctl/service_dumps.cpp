#include "service_dumps.h"

#include <algorithm>
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

std::vector<Dump> DumpsIn(const std::filesystem::path& folder) {
    WIN32_FIND_DATAW entry{};
    const UniqueSearch search = OwnSearch(::FindFirstFileW((folder / L"*.dmp").c_str(), &entry));
    if (!search && ::GetLastError() != ERROR_FILE_NOT_FOUND)
        throw FileError("cannot list the dumps in", folder);
    std::vector<Dump> dumps;
    for (BOOL more = search != nullptr; more; more = ::FindNextFileW(search.get(), &entry)) {
        constexpr DWORD kOthers = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
        if (IsDumpName(entry.cFileName) && (entry.dwFileAttributes & kOthers) == 0)
            dumps.push_back({entry.cFileName, entry.ftLastWriteTime,
                             (std::uint64_t{entry.nFileSizeHigh} << 32) | entry.nFileSizeLow});
    }
    std::sort(dumps.begin(), dumps.end(), [](const Dump& left, const Dump& right) {
        return ::CompareFileTime(&left.written, &right.written) > 0;
    });
    return dumps;
}
