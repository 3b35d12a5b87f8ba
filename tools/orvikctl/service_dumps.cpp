#include "service_dumps.h"

#include <algorithm>

#include "crash_reason.h"
#include "found_files.h"
#include "protocol/message.h"

namespace {

/// The service names its dumps with identifiers: 36 characters, and ".dmp".
bool IsDumpName(const std::wstring& name) {
    return name.size() == 40 && name[8] == L'-' && name[13] == L'-' && name[18] == L'-' &&
           name[23] == L'-';
}

}  // namespace

std::vector<Dump> DumpsIn(const std::filesystem::path& folder) {
    std::vector<Dump> dumps;
    for (const WIN32_FIND_DATAW& file : FindFiles(folder, L"*.dmp", "cannot list the dumps in")) {
        constexpr DWORD kOthers = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
        if (IsDumpName(file.cFileName) && (file.dwFileAttributes & kOthers) == 0)
            dumps.push_back({file.cFileName, file.ftLastWriteTime, SizeOf(file)});
    }
    std::sort(dumps.begin(), dumps.end(), [](const Dump& left, const Dump& right) {
        return ::CompareFileTime(&left.written, &right.written) > 0;
    });
    return dumps;
}

bool IsOfAnotherProgram(const std::wstring& program) {
    static const std::wstring own = std::wstring(kServiceName) + L".exe";
    return !program.empty() &&
           ::CompareStringOrdinal(program.c_str(), -1, own.c_str(), -1, TRUE) != CSTR_EQUAL;
}

std::optional<Dump> NewestServiceDump(const std::filesystem::path& folder) {
    for (const Dump& dump : DumpsIn(folder))
        if (!IsOfAnotherProgram(ProgramOf(folder / dump.name)))
            return dump;
    return std::nullopt;
}
