#include <algorithm>
#include <exception>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <windows.h>

#include <shlobj.h>

#include "crash_reason.h"
#include "exit_code.h"
#include "facts.h"
#include "found_files.h"
#include "report_parts.h"
#include "service_dumps.h"
#include "service_folders.h"
#include "utc_time.h"
#include "windows/unique_memory.h"
#include "windows/utf.h"

namespace {

constexpr std::size_t kDumps = 3;

std::string ReasonOf(const std::filesystem::path& dump) {
    try {
        const CrashReason reason = CrashReasonOf(dump);
        return TimeOf(reason.time) + ", " + reason.Words();
    } catch (const std::exception& error) {
        return std::string("reason unknown: ") + error.what();
    }
}

/// Its line in dumps.txt. `program` is empty if it is unknown.
std::string CopyDump(ReportFolder& folder, const std::filesystem::path& from, const Dump& dump,
                     const std::wstring& program) {
    std::string line = ToUtf8(dump.name.wstring()) + "  ";
    try {
        if (dump.size > kDumpSizeLimit)
            throw Failure(ExitCode::kFailure,
                          "it has more than " + std::to_string(kDumpSizeLimit) + " bytes");
        folder.Copy(from / dump.name, std::filesystem::path("dumps") / dump.name);
        line += (program.empty() ? "program unknown" : ToUtf8(program)) + ", " +
                ReasonOf(from / dump.name);
    } catch (const std::exception& error) {
        line += std::string("not collected: ") + error.what();
    }
    return Printable(line) + "\n";
}

/// "FILE.PROCESS.part", where PROCESS is a number.
bool IsPartialFile(const std::filesystem::path& name) {
    const std::wstring process = name.stem().extension().wstring();
    return name.extension() == L".part" && process.size() > 1 &&
           process.find_first_not_of(L"0123456789", 1) == std::wstring::npos;
}

Json FileJson(const WIN32_FIND_DATAW& file) {
    return {{"name", ToUtf8(file.cFileName)},
            {"size", SizeOf(file)},
            {"written", TimeOf(file.ftLastWriteTime)}};
}

Json PartialFilesIn(const std::filesystem::path& folder) {
    Json files = Json::array();
    for (const WIN32_FIND_DATAW& file : FindFiles(folder, L"*.part", "cannot list the files in"))
        if (IsPartialFile(file.cFileName))
            files.push_back(FileJson(file));
    return files;
}

/// With the program of each, null if it is unknown.
Json CrashServerDumpsIn(const std::filesystem::path& folder) {
    Json files = Json::array();
    for (const WIN32_FIND_DATAW& file : FindFiles(folder, L"*.dmp", "cannot list the files in")) {
        const std::wstring program = ProgramOf(folder / file.cFileName);
        files.push_back(FileJson(file));
        files.back()["program"] = program.empty() ? Json() : Json(ToUtf8(program));
    }
    return files;
}

/// Where users of orvikctl are likely to have their files.
std::vector<std::filesystem::path> UsersFolders() {
    std::error_code none;
    std::vector<std::filesystem::path> folders{std::filesystem::current_path(none)};
    for (const KNOWNFOLDERID* const id : {&FOLDERID_Profile, &FOLDERID_Desktop, &FOLDERID_Documents,
                                          &FOLDERID_Downloads, &FOLDERID_Pictures}) {
        wchar_t* path = nullptr;
        const HRESULT result = ::SHGetKnownFolderPath(*id, 0, nullptr, &path);
        const std::unique_ptr<wchar_t, TaskMemoryFreer> owner(path);
        if (SUCCEEDED(result) && std::find(folders.begin(), folders.end(), path) == folders.end())
            folders.emplace_back(path);
    }
    return folders;
}

}  // namespace

void ReportLog(ReportFolder& folder) {
    folder.Copy(ServiceLogFolder().path / "log.txt", "log.txt");
}

void ReportOldLog(ReportFolder& folder) {
    folder.Copy(ServiceLogFolder().path / "log.old.txt", "log.old.txt");
}

void ReportDumps(ReportFolder& folder) {
    const std::filesystem::path from = ServiceDumpFolder();
    const std::vector<Dump> dumps = DumpsIn(from);
    std::string text = "Dumps with names like those of the service in " + ToUtf8(from.wstring()) +
                       ": " + std::to_string(dumps.size()) + ". At most the newest " +
                       std::to_string(kDumps) + " of the service are in this folder.\n";
    folder.MakeFolder("dumps");
    std::size_t ofService = 0;
    for (const Dump& dump : dumps) {
        if (ofService == kDumps)
            break;
        const std::wstring program = ProgramOf(from / dump.name);
        if (IsOfAnotherProgram(program)) {
            text += Printable(ToUtf8(dump.name.wstring()) + "  not collected: it is a dump of " +
                              ToUtf8(program)) +
                    "\n";
        } else {
            text += CopyDump(folder, from, dump, program);
            ++ofService;
        }
    }
    folder.Write("dumps/dumps.txt", text);
}

void ReportLeftovers(ReportFolder& folder) {
    Json json = NewJson();
    for (const std::filesystem::path& from : UsersFolders())
        AddFact(json["partial_files"], ToUtf8(from.wstring()).c_str(),
                [&] { return PartialFilesIn(from); });
    // Which drive is current for the crash server is known to its process alone.
    const std::filesystem::path root = std::filesystem::path(ExpandForSystem(L"%SystemDrive%\\"));
    AddFact(json["dumps_of_the_crash_server"], ToUtf8(root.wstring()).c_str(),
            [&] { return CrashServerDumpsIn(root); });
    folder.Write("leftovers.json", json);
}
