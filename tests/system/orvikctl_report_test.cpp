// orvikctl report: what it collects, and what it says about the rest.

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "desktop_application.h"
#include "installed_service.h"
#include "orvikctl_fixture.h"
#include "raw_client.h"
#include "support/dump_bytes.h"

namespace system_test {
namespace {

namespace fs = std::filesystem;

/// A file that the test needs where the service would have left one. One that is there already is
/// not touched.
class NeededFile {
public:
    NeededFile(const fs::path& file, const Bytes& content) : path(file) {
        made = !fs::exists(path);
        if (!made)
            return;
        fs::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(content.data()),
                   static_cast<std::streamsize>(content.size()));
    }
    ~NeededFile() {
        std::error_code ignored;
        if (made)
            fs::remove(path, ignored);
    }

    NeededFile(const NeededFile&) = delete;
    NeededFile& operator=(const NeededFile&) = delete;

private:
    fs::path path;
    bool made = false;
};

/// The current folder while this lives.
class CurrentFolder {
public:
    explicit CurrentFolder(const fs::path& folder) { fs::current_path(folder); }
    ~CurrentFolder() {
        std::error_code ignored;
        fs::current_path(previous, ignored);
    }

    CurrentFolder(const CurrentFolder&) = delete;
    CurrentFolder& operator=(const CurrentFolder&) = delete;

private:
    const fs::path previous = fs::current_path();
};

constexpr wchar_t kApplicationKey[] =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\App Paths\Orvik.exe)";

void ExpectFactsOfThisWindows(const Json& json) {
    constexpr wchar_t kKey[] = LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion)";
    DWORD revision = 0;
    DWORD size = sizeof(revision);
    const LSTATUS code = ::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, L"UBR", RRF_RT_REG_DWORD, nullptr,
                                        &revision, &size);
    EXPECT_TRUE(code == ERROR_SUCCESS || code == ERROR_FILE_NOT_FOUND) << code;  // some Wines
    EXPECT_EQ(json.at("update_revision"), code == ERROR_SUCCESS ? Json(revision) : Json());
    EXPECT_TRUE(json.at("name").get<std::string>().find("Windows ") != std::string::npos) << json;
    EXPECT_NE(json.at("version").get<std::string>().find('.'), std::string::npos);
}

Bytes BytesOf(const std::string& text) {
    const auto* const first = reinterpret_cast<const std::byte*>(text.data());
    return {first, first + text.size()};
}

class OrvikctlReport : public OrvikctlTest {
protected:
    /// Runs it, with --json and a new folder: the reasons of what is missing, empty for the others.
    std::map<std::string, std::string> Collect() {
        const Json json = JsonOf(Orvikctl(L"report --json -o " + Quoted(L"report")));
        EXPECT_EQ(json.at("folder"), ToUtf8((folder / L"report").wstring()));
        EXPECT_NE(json.at("private_data").get<std::string>().find("private data"),
                  std::string::npos);
        std::map<std::string, std::string> reasons;
        for (const Json& part : json.at("parts")) {
            const std::string name = part.at("name");
            reasons[name] = part.at("collected") ? "" : part.at("reason").get<std::string>();
            EXPECT_EQ(fs::exists(folder / L"report" / name), part.at("collected")) << name;
        }
        EXPECT_EQ(reasons.size(), 11u) << json;
        return reasons;
    }

    std::string TextOf(const fs::path& name) const {
        const Bytes bytes = ContentOf(L"report" / name);
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
    Json JsonIn(const char* name) const { return Json::parse(TextOf(name)); }
};

TEST_F(OrvikctlReport, OfARunningServiceHasAllParts) {
    const PluggedCamera camera(bus);
    const RegisteredApplication application(RecorderPath() + L'\0');
    const RunningService service(RunMode::kServiceManager);
    const Json before = JsonOf(Orvikctl(L"status --json"));
    const fs::path logFolder = ToUtf16(before.at("log_folder").get<std::string>());
    const NeededFile log(logFolder / L"log.txt", BytesOf("the log\n"));
    const NeededFile oldLog(logFolder / L"log.old.txt", BytesOf("the old log\n"));
    MakeFile(L"picture.bin.1234.part", Bytes(10));
    MakeFile(L"another.part", Bytes(10));

    std::map<std::string, std::string> reasons;
    {
        const CurrentFolder inside(folder);
        reasons = Collect();
    }

    for (const char* const name :
         {"status.json", "service.json", "versions.json", "windows.json", "application.json",
          "cameras.json", "log.txt", "log.old.txt", "dumps", "leftovers.json"})
        EXPECT_EQ(reasons[name], "") << name;
    const Json status = JsonIn("status.json");
    EXPECT_EQ(status.at("process"), service.ProcessId());
    EXPECT_EQ(status.at("cameras"), Json({1}));
    const Json configuration = JsonIn("service.json");
    EXPECT_EQ(configuration.at("account"), "LocalSystem");
    EXPECT_EQ(configuration.at("start_type"), "manual");
    EXPECT_EQ(configuration.at("display_name"), "OrvikService (system tests)");
    EXPECT_EQ(configuration.at("command_line")
                  .get<std::string>()
                  .find('"' + ToUtf8(ProgramPath(L"OrvikService.exe")) + '"'),
              0u);
    EXPECT_TRUE(configuration.contains("recovery"));  // orvikctl_status_test is about them
    std::map<std::string, Json> versions;
    const Json versionsJson = JsonIn("versions.json");
    for (const Json& file : versionsJson.at("files"))
        versions[fs::path(ToUtf16(file.at("file").get<std::string>())).filename().string()] = file;
    for (const char* const program : {"OrvikService.exe", "orvikctl.exe"})
        EXPECT_EQ(versions[program].at("version"), "4.0.4") << program;
    EXPECT_TRUE(versions["orvik.dll"].contains("file"));
    EXPECT_TRUE(versions["crashreporter.exe"].at("unknown").contains("file"));
    ExpectFactsOfThisWindows(JsonIn("windows.json"));
    EXPECT_EQ(JsonIn("application.json").at("value"), ToUtf8(RecorderPath()));
    EXPECT_EQ(JsonIn("application.json").at("is_a_file"), true);
    EXPECT_EQ(ContentOf(L"report/log.txt"), ::ContentOf(logFolder / L"log.txt"));
    EXPECT_EQ(ContentOf(L"report/log.old.txt"), ::ContentOf(logFolder / L"log.old.txt"));
    const Json partial = JsonIn("leftovers.json").at("partial_files");
    const Json files = partial.at(ToUtf8(folder.wstring()));
    ASSERT_EQ(files.size(), 1u) << files;
    EXPECT_EQ(files[0].at("name"), "picture.bin.1234.part");
    EXPECT_EQ(files[0].at("size"), 10);
    if (reasons["events.xml"].empty()) {
        EXPECT_TRUE(TextOf(L"events.xml").starts_with("<Events>\n"));
    } else {  // Wine
        EXPECT_TRUE(reasons["events.xml"].starts_with("cannot query the event log System"))
            << reasons["events.xml"];
    }
    const std::string text = TextOf(L"report.txt");
    EXPECT_NE(text.find("private data"), std::string::npos);
    EXPECT_NE(text.find("\nstatus.json\n"), std::string::npos) << text;
}

TEST_F(OrvikctlReport, HasTheDescriptorsOfCamerasAndSendsThemNoCommand) {
    vcam::PlugOptions options;
    options.product = "Report Camera";
    const PluggedCamera camera(bus, options);
    const RunningService service(RunMode::kServiceManager);
    EXPECT_EQ(Orvikctl(L"inquiry").exitCode, 0u);
    const std::uint64_t requests = camera.Counters().requests;
    Collect();
    EXPECT_EQ(camera.Counters().requests, requests);

    const Json interfaces = JsonIn("cameras.json");
    std::vector<Json> cameras;
    for (const char* const type : {"disks", "cd_roms"}) {
        for (const Json& entry : interfaces.at(type))
            if (entry.at("interface").at("camera") == true)
                cameras.push_back(entry.at("interface").at("descriptor"));
    }
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras[0].at("vendor"), "Orvik");
    EXPECT_EQ(cameras[0].at("product"), "Report Camera");
    EXPECT_EQ(cameras[0].at("revision"), "F01");
}

TEST_F(OrvikctlReport, HasTheNewestThreeDumpsAndTheirReasons) {
    InstallService(ProgramPath(L"OrvikService.exe"));
    const Json status = Json::parse(Orvikctl(L"status --json").output.at(0));
    const fs::path from = ToUtf16(status.at("dump_folder").get<std::string>());
    const auto tomorrow = fs::file_time_type::clock::now() + std::chrono::hours(24);
    std::vector<std::unique_ptr<NeededFile>> made;
    std::vector<std::string> names;
    for (std::size_t i = 0; i < 4; ++i) {  // the newest first
        names.push_back("0123456" + std::to_string(i) + "-89ab-cdef-0123-456789abcdef.dmp");
        made.push_back(std::make_unique<NeededFile>(
            from / names.back(),
            i == 1 ? BytesOf("x") : DumpBytes("reason\x1B " + std::to_string(i)).bytes));
        if (i == 2)
            fs::resize_file(from / names[i], 256 * 1024 * 1024 + 1);
        fs::last_write_time(from / names.back(), tomorrow - std::chrono::hours(i));
    }
    Collect();
    for (std::size_t i = 0; i < 4; ++i)
        EXPECT_EQ(fs::exists(folder / L"report/dumps" / names[i]), i < 2) << names[i];
    EXPECT_EQ(ContentOf(L"report/dumps/" + ToUtf16(names[0])), ::ContentOf(from / names[0]));
    const std::string text = TextOf(L"dumps/dumps.txt");
    EXPECT_NE(text.find("\n" + names[0] + "  program unknown, 2026-11-22T13:31:15Z, reason? 0\n" +
                        names[1] + "  program unknown, reason unknown: cannot read the dump "),
              std::string::npos)
        << text;
    EXPECT_TRUE(
        text.ends_with("\n" + names[2] + "  not collected: it has more than 268435456 bytes\n"))
        << text;
    EndLeftovers();
}

TEST_F(OrvikctlReport, HasThreeDumpsOfTheServiceAndSaysOfWhichProgramTheOthersAre) {
    InstallService(ProgramPath(L"OrvikService"));  // Windows adds the ".exe"
    const Json status = Json::parse(Orvikctl(L"status --json").output.at(0));
    const fs::path from = ToUtf16(status.at("dump_folder").get<std::string>());
    const auto tomorrow = fs::file_time_type::clock::now() + std::chrono::hours(24);
    std::vector<std::unique_ptr<NeededFile>> made;
    std::vector<std::string> names;
    const wchar_t* const programs[] = {
        LR"(C:\other.exe)",        LR"(C:\new\ORVIKSERVICE.EXE)", LR"(C:\OrvikService.exe.exe)",
        LR"(C:\OrvikService.exe)", LR"(C:\OrvikService.exe)",     LR"(C:\other.exe)"};
    for (std::size_t i = 0; i < std::size(programs); ++i) {  // the newest first
        names.push_back("0123456" + std::to_string(i) + "-89ab-cdef-0123-456789abcdef.dmp");
        made.push_back(std::make_unique<NeededFile>(
            from / names.back(),
            DumpBytes("reason", kRunEnded, kRunEndedParameters, programs[i]).bytes));
        if (i == 0)
            fs::resize_file(from / names[i],
                            256 * 1024 * 1024 + 1);  // its program is near the start
        fs::last_write_time(from / names.back(), tomorrow - std::chrono::hours(i));
    }
    const fs::path root = fs::path(from).root_path();
    const NeededFile dumpOfClient(
        root / L"orvikctl_report_test.dmp",
        DumpBytes("reason", EXCEPTION_ACCESS_VIOLATION, 0, LR"(C:\client.exe)").bytes);
    const NeededFile noDump(root / L"orvikctl_report_test 2.dmp", BytesOf("x"));
    Collect();
    for (const std::size_t i : {0u, 2u, 5u})
        EXPECT_FALSE(fs::exists(folder / L"report/dumps" / names[i])) << names[i];
    for (const std::size_t i : {1u, 3u, 4u})
        EXPECT_TRUE(fs::exists(folder / L"report/dumps" / names[i])) << names[i];
    const std::string text = TextOf(L"dumps/dumps.txt");
    const std::string reason = ", 2026-11-22T13:31:15Z, reason\n";
    EXPECT_TRUE(text.ends_with("\n" + names[0] + "  not collected: it is a dump of other.exe\n" +
                               names[1] + "  ORVIKSERVICE.EXE" + reason + names[2] +
                               "  not collected: it is a dump of OrvikService.exe.exe\n" +
                               names[3] + "  OrvikService.exe" + reason + names[4] +
                               "  OrvikService.exe" + reason))
        << text;

    std::map<std::string, Json> programsOfClients;
    const Json leftovers = JsonIn("leftovers.json").at("dumps_of_the_crash_server");
    for (const Json& file : leftovers.at(ToUtf8(root.wstring())))
        programsOfClients[file.at("name")] = file.at("program");
    EXPECT_EQ(programsOfClients.at("orvikctl_report_test.dmp"), "client.exe");
    EXPECT_EQ(programsOfClients.at("orvikctl_report_test 2.dmp"), nullptr);
    EndLeftovers();
}

TEST_F(OrvikctlReport, HasWhyTheValueOfTheApplicationCannotBeRead) {
    const RegisteredApplication application(std::nullopt);
    const DWORD number = 1;
    ASSERT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kApplicationKey, nullptr, REG_DWORD, &number,
                                sizeof(number)),
              ERROR_SUCCESS);
    Collect();
    const std::string why = JsonIn("application.json").at("unknown").at("value");
    EXPECT_TRUE(why.starts_with("cannot read the registry value HKLM\\" + ToUtf8(kApplicationKey) +
                                "\\(default): "))
        << why;
}

TEST_F(OrvikctlReport, HasTheProgramThatTheServiceWouldStart) {
    constexpr wchar_t kFallback[] = LR"(c:\Program Files (x86)\Orvik\Orvik.exe)";
    const RegisteredApplication restored(std::nullopt);
    const auto expectStarted = [this](const std::wstring& path) {
        fs::remove_all(folder / L"report");
        Collect();
        const Json json = JsonIn("application.json");
        EXPECT_EQ(json.at("started"), ToUtf8(path));
        EXPECT_EQ(json.at("started_is_a_file"), fs::is_regular_file(path));
    };
    const auto setValue = [](DWORD type, const void* value, std::size_t size) {
        ASSERT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kApplicationKey, nullptr, type, value,
                                    static_cast<DWORD>(size)),
                  ERROR_SUCCESS);
    };
    expectStarted(kFallback);
    const std::wstring recorder = RecorderPath();
    ASSERT_TRUE(fs::is_regular_file(recorder));
    setValue(REG_SZ, recorder.c_str(), (recorder.size() + 1) * sizeof(wchar_t));
    expectStarted(recorder);
    const std::wstring tooLong(512, L'x');
    setValue(REG_SZ, tooLong.c_str(), (tooLong.size() + 1) * sizeof(wchar_t));
    expectStarted(kFallback);
    EXPECT_EQ(JsonIn("application.json").at("value"), ToUtf8(tooLong)) << "which is not used";
    // The service takes a value of any type for a path.
    const DWORD numbers[] = {0, 'x'};
    setValue(REG_DWORD, &numbers[0], sizeof(DWORD));
    expectStarted(kFallback);
    setValue(REG_DWORD, &numbers[1], sizeof(DWORD));
    MakeFile(L"x", Bytes(1));
    const CurrentFolder inside(folder);  // which says nothing about the service's current folder
    fs::remove_all(L"report");
    Collect();
    const Json json = JsonIn("application.json");
    EXPECT_EQ(json.at("started"), "x");
    EXPECT_EQ(json.at("started_is_a_file"), false);
}

TEST_F(OrvikctlReport, TakesAPathWithoutALimitOfItsLength) {
    const std::wstring path = LR"(\\?\)" + (folder / L"report").wstring();
    const Json json = JsonOf(Orvikctl(L"report --json -o \"" + path + L"\""));
    EXPECT_EQ(json.at("folder"), ToUtf8(path));
    EXPECT_TRUE(fs::exists(folder / L"report/report.txt"));
}

TEST_F(OrvikctlReport, WithoutAServiceSaysWhatIsMissingAndWhy) {
    const CurrentFolder inside(folder);
    const Result result = Orvikctl(L"report -o report");
    EXPECT_EQ(result.exitCode, 0u) << result;
    EXPECT_EQ(result.output.at(0),
              "The report is in " + ToUtf8((folder / L"report").wstring()) + ":");
    const std::set<std::string> lines(result.output.begin(), result.output.end());
    for (const std::string name : {"log.txt      ", "log.old.txt  ", "dumps        "})
        EXPECT_TRUE(
            lines.contains(name + "     not collected: the service OrvikService is not installed"))
            << result;
    for (const char* const name : {"status.json", "service.json", "windows.json", "cameras.json"})
        EXPECT_TRUE(lines.contains(name)) << result;
    EXPECT_EQ(JsonIn("status.json").at("installed"), false);
    EXPECT_EQ(JsonIn("service.json").at("unknown").at("account"),
              "the service OrvikService is not installed");
    EXPECT_FALSE(fs::exists(folder / L"report/log.txt"));
    const std::string text = TextOf(L"report.txt");
    for (const std::string& line : result.output)
        EXPECT_TRUE(line.starts_with("The report is in ") || text.find(line) != std::string::npos)
            << line;
}

TEST_F(OrvikctlReport, LeavesAFolderThatExistsAsItIs) {
    fs::create_directory(folder / L"report");
    MakeFile(L"report/mine.txt", Bytes(3));
    EXPECT_TRUE(Failed(Orvikctl(L"report -o " + Quoted(L"report")), 1,
                       "cannot make the folder " + ToUtf8((folder / L"report").wstring()) +
                           ", because it exists already"));
    EXPECT_EQ(ContentOf(L"report/mine.txt"), Bytes(3));
    EXPECT_FALSE(fs::exists(folder / L"report/report.txt"));
    EXPECT_TRUE(
        Failed(Orvikctl(L"report -o " + Quoted(L"no/report")), 1, "cannot make the folder "));
    EXPECT_TRUE(Failed(Orvikctl(L"report"), 2, "--output is required"));
}

}  // namespace
}  // namespace system_test
