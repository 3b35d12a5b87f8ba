// orvikctl status: each line is true, or names the cause why it is unknown.

#include <array>
#include <map>
#include <system_error>

#include "installed_service.h"
#include "orvikctl_fixture.h"
#include "windows/unique_service_handle.h"

namespace system_test {
namespace {

using Facts = std::map<std::string, std::string>;

/// The lines, by their labels.
Facts FactsOf(const Result& result) {
    constexpr std::size_t kColumn = 14;
    Facts facts;
    for (const std::string& line : result.output) {
        std::string label = line.substr(0, kColumn);
        label.resize(label.find_last_not_of(' ') + 1);
        facts[label] = line.size() > kColumn ? line.substr(kColumn) : "";
    }
    EXPECT_EQ(facts.size(), 14u) << result;
    return facts;
}

bool IsUnknown(const std::string& fact) {
    return fact.starts_with("unknown: ");
}

/// Runs a program of the system; its exit code.
DWORD SystemProgram(const wchar_t* name, const std::wstring& arguments) {
    std::wstring path(MAX_PATH, L'\0');
    path.resize(::GetSystemDirectoryW(path.data(), MAX_PATH));
    return Program(path + L"\\" + name, arguments).WaitForEnd();
}

/// A profile of LocalSystem: the one that the system has; where it has none, one of the test's.
class SystemProfile {
public:
    SystemProfile() {
        if (Folder().empty()) {
            made = true;
            const std::wstring folder = TestFolder();
            ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue, REG_SZ, folder.c_str(),
                              static_cast<DWORD>((folder.size() + 1) * sizeof(wchar_t)));
        }
    }
    ~SystemProfile() {
        if (made)
            ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kKey);
    }

    SystemProfile(const SystemProfile&) = delete;
    SystemProfile& operator=(const SystemProfile&) = delete;

    /// Empty if there is none.
    static std::wstring Folder() {
        std::array<wchar_t, 1024> text{};
        DWORD size = sizeof(text);
        return ::RegGetValueW(HKEY_LOCAL_MACHINE, kKey, kValue, RRF_RT_REG_SZ, nullptr, text.data(),
                              &size) == ERROR_SUCCESS
                   ? text.data()
                   : L"";
    }

private:
    static constexpr wchar_t kKey[] =
        LR"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\S-1-5-18)";
    static constexpr wchar_t kValue[] = L"ProfileImagePath";
    bool made = false;
};

/// Installs the service with a command line as it is. The service is not started.
void InstallCommandLine(const std::wstring& commandLine) {
    InstallService(L"replaced");
    const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const UniqueServiceHandle service(
        ::OpenServiceW(manager.get(), kServiceName, SERVICE_CHANGE_CONFIG));
    EXPECT_TRUE(::ChangeServiceConfigW(service.get(), SERVICE_NO_CHANGE, SERVICE_NO_CHANGE,
                                       SERVICE_NO_CHANGE, commandLine.c_str(), nullptr, nullptr,
                                       nullptr, nullptr, nullptr, nullptr));
}

/// The error of asking the system for the service's recovery actions, ERROR_SUCCESS if there is
/// none.
DWORD ErrorOfQueryingRecoveryActions() {
    const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    const UniqueServiceHandle service(
        ::OpenServiceW(manager.get(), kServiceName, SERVICE_QUERY_CONFIG));
    EXPECT_TRUE(service);
    alignas(SERVICE_FAILURE_ACTIONSW) std::array<BYTE, 8 * 1024> record{};
    DWORD needed = 0;
    return ::QueryServiceConfig2W(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS, record.data(),
                                  static_cast<DWORD>(record.size()), &needed)
               ? ERROR_SUCCESS
               : ::GetLastError();
}

using OrvikctlStatus = OrvikctlTest;

TEST_F(OrvikctlStatus, ServiceThatRuns) {
    const PluggedCamera camera(bus);
    RunningService service(RunMode::kServiceManager);
    const Result result = Orvikctl(L"status");
    EXPECT_EQ(result.exitCode, 0u) << result;
    EXPECT_EQ(result.errors, Lines{});
    Facts facts = FactsOf(result);
    EXPECT_EQ(facts["installed"], "yes");
    EXPECT_EQ(facts["start type"], "manual");
    EXPECT_EQ(facts["state"], "running");
    EXPECT_EQ(facts["process"], std::to_string(service.ProcessId()));
    EXPECT_EQ(facts["program"], ToUtf8(ProgramPath(L"OrvikService.exe")));
    EXPECT_EQ(facts["version"], "4.0.4");
    EXPECT_EQ(facts["pipe"], "reachable");
    EXPECT_TRUE(facts["round trip"].ends_with(" ms")) << result;
    EXPECT_EQ(facts["cameras"], "1");

    const Json json = JsonOf(Orvikctl(L"status --json"));
    EXPECT_EQ(json.at("installed"), true);
    EXPECT_EQ(json.at("start_type"), "manual");
    EXPECT_EQ(json.at("state"), "running");
    EXPECT_EQ(json.at("process"), service.ProcessId());
    EXPECT_EQ(json.at("program"), ToUtf8(ProgramPath(L"OrvikService.exe")));
    EXPECT_EQ(json.at("version"), "4.0.4");
    EXPECT_EQ(json.at("reachable"), true);
    EXPECT_EQ(json.at("error"), nullptr);
    EXPECT_GT(json.at("round_trip_ms").get<double>(), 0);
    EXPECT_EQ(json.at("cameras"), Json({1}));
    for (const auto& [key, why] : json.at("unknown").items())
        EXPECT_TRUE(json.at(key).is_null() && why.is_string()) << key;
}

TEST_F(OrvikctlStatus, ServiceThatIsNotInstalled) {
    const Result result = Orvikctl(L"status");
    EXPECT_EQ(result.exitCode, 5u);
    ASSERT_EQ(result.errors.size(), 1u);
    EXPECT_TRUE(
        result.errors[0].starts_with("orvikctl: error: the service OrvikService is not installed"));
    Facts facts = FactsOf(result);
    EXPECT_EQ(facts["installed"], "no");
    EXPECT_TRUE(facts["pipe"].starts_with("not reachable: ")) << result;
    facts.erase("installed");
    facts.erase("pipe");
    for (const auto& [label, fact] : facts)
        EXPECT_TRUE(IsUnknown(fact)) << label << ": " << fact;
}

TEST_F(OrvikctlStatus, ServiceThatWasNeverStarted) {
    InstallService(ProgramPath(L"OrvikService.exe"));
    const Result result = Orvikctl(L"status");
    EXPECT_EQ(result.exitCode, 5u);
    Facts facts = FactsOf(result);
    EXPECT_EQ(facts["installed"], "yes");
    EXPECT_TRUE(facts["state"].starts_with("stopped: ")) << result;
    EXPECT_TRUE(facts["state"].ends_with(" (error 1077)")) << result;
    EXPECT_EQ(facts["process"], "none");
    EXPECT_EQ(facts["version"], "4.0.4");
    EXPECT_TRUE(facts["pipe"].starts_with("not reachable: the service is not running")) << result;
    EXPECT_TRUE(IsUnknown(facts["cameras"])) << result;
    EndLeftovers();
}

TEST_F(OrvikctlStatus, CommandLineWithoutQuotes) {
    const std::filesystem::path inside = folder / L"a b" / L"c \u00E4";
    std::filesystem::create_directories(inside);
    std::filesystem::create_directory(folder / L"a");  // no file
    const std::filesystem::path program = inside / L"Orvik Service.exe";
    std::filesystem::copy_file(ProgramPath(L"OrvikService.exe"), program);
    for (const std::wstring& commandLine :
         {program.wstring(), program.wstring() + L" -x y z",
          (inside / L"Orvik Service").wstring() + L"\t-x", L'"' + program.wstring() + L"\" -x"}) {
        InstallCommandLine(commandLine);
        Facts facts = FactsOf(Orvikctl(L"status"));
        EXPECT_EQ(facts["program"], ToUtf8(program.wstring())) << ToUtf8(commandLine);
        EXPECT_EQ(facts["version"], "4.0.4") << ToUtf8(commandLine);
        const Result result = Orvikctl(L"status --json");
        const std::string& json = result.output.at(0);
        EXPECT_NE(json.find("c \\u00e4"), std::string::npos) << json;
        EXPECT_EQ(Json::parse(json).at("program"), ToUtf8(program.wstring()));
        EndLeftovers();
    }
    InstallCommandLine((inside / L"another one.exe").wstring() + L" -x");
    Facts facts = FactsOf(Orvikctl(L"status"));
    EXPECT_TRUE(facts["program"].starts_with(
        "unknown: cannot find the program in the service's command line "))
        << facts["program"];
    EXPECT_TRUE(IsUnknown(facts["version"])) << facts["version"];
    EndLeftovers();
}

TEST_F(OrvikctlStatus, ServiceThatIsStopped) {
    RunningService service(RunMode::kServiceManager);
    service.Stop();
    const Result result = Orvikctl(L"status --json");
    EXPECT_EQ(result.exitCode, 5u);
    const Json json = Json::parse(result.output.at(0));
    EXPECT_EQ(json.at("state"), "stopped");
    EXPECT_EQ(json.at("process"), nullptr);
    EXPECT_FALSE(json.at("unknown").contains("process"));
    EXPECT_EQ(json.at("reachable"), false);
    EXPECT_EQ(json.at("error").at("kind"), "stopped");
    EXPECT_EQ(json.at("error").at("exit_code"), 5);
    EXPECT_TRUE(json.at("unknown").contains("cameras"));
}

TEST_F(OrvikctlStatus, ServiceInAConsole) {
    const RunningService service;
    const Result result = OrvikctlInForeground(L"status");
    EXPECT_EQ(result.exitCode, 0u) << result;
    Facts facts = FactsOf(result);
    EXPECT_EQ(facts["installed"], "no");
    EXPECT_EQ(facts["pipe"], "reachable");
    EXPECT_EQ(facts["cameras"], "none");
}

TEST_F(OrvikctlStatus, LogAndDumps) {
    RunningService service(RunMode::kServiceManager);
    const SystemProfile profile;
    std::array<wchar_t, MAX_PATH> temporary{};
    ::ExpandEnvironmentStringsW(L"%SystemRoot%\\Temp", temporary.data(), MAX_PATH);
    const std::filesystem::path dumps = temporary.data();

    // Newer than all that may be there; the two newest by far are none of the service's.
    const auto tomorrow = std::filesystem::file_time_type::clock::now() + std::chrono::hours(24);
    const std::filesystem::path files[] = {dumps / L"01234567-89ab-cdef-0123-456789abcdef.dmp",
                                           dumps / L"fedcba98-89ab-cdef-0123-456789abcdef.dmp",
                                           dumps / L"another.dmp",
                                           dumps / L"fedcba98-89ab-cdef-0123-456789abcdef 2.dmp"};
    const std::chrono::hours age[] = {std::chrono::hours(0), std::chrono::hours(1),
                                      std::chrono::hours(-1), std::chrono::hours(-2)};
    for (std::size_t i = 0; i < std::size(files); ++i) {
        std::ofstream(files[i]).close();
        std::filesystem::last_write_time(files[i], tomorrow - age[i]);
    }
    const Result result = Orvikctl(L"status");
    const Json json = JsonOf(Orvikctl(L"status --json"));
    for (const auto& file : files)
        std::filesystem::remove(file);

    Facts facts = FactsOf(result);
    std::array<wchar_t, MAX_PATH> home{};
    ::ExpandEnvironmentStringsW(SystemProfile::Folder().c_str(), home.data(), MAX_PATH);
    EXPECT_EQ(facts["log folder"], ToUtf8(home.data()) + R"(\AppData\Local\Orvik)");
    EXPECT_EQ(_stricmp(facts["dump folder"].c_str(), ToUtf8(dumps.wstring()).c_str()), 0) << result;
    EXPECT_TRUE(facts["newest dump"].starts_with("01234567-89ab-cdef-0123-456789abcdef.dmp, 20"))
        << result;
    EXPECT_EQ(json.at("newest_dump").at("name"), "01234567-89ab-cdef-0123-456789abcdef.dmp");
    EXPECT_TRUE(facts["last crash"].starts_with("unknown: cannot read the dump ") &&
                facts["last crash"].ends_with("-456789abcdef.dmp: it is empty"))
        << result;
    EXPECT_EQ(json.at("last_crash"), nullptr);
    EXPECT_EQ(json.at("unknown").at("last_crash"), facts["last crash"].substr(9));
}

// As where this program is shown to somebody: in Wine, whose registry names no profile of a
// service.
TEST_F(OrvikctlStatus, FoldersWithoutAProfileInTheRegistryAreThoseThatWindowsDefines) {
    if (!SystemProfile::Folder().empty())
        GTEST_SKIP() << "this system has a profile of LocalSystem";
    RunningService service(RunMode::kServiceManager);
    const Result result = Orvikctl(L"status");
    std::array<wchar_t, MAX_PATH> profile{};
    ::ExpandEnvironmentStringsW(LR"(%SystemRoot%\System32\config\systemprofile)", profile.data(),
                                MAX_PATH);
    Facts facts = FactsOf(result);
    const std::string logFolder = ToUtf8(profile.data()) + R"(\AppData\Local\Orvik)";
    EXPECT_EQ(facts["log folder"],
              logFolder +
                  R"( (Windows' default for the account, because there is no registry value HKLM\)"
                  R"(SOFTWARE\Microsoft\Windows NT\CurrentVersion\ProfileList\S-1-5-18\)"
                  R"(ProfileImagePath))");
    for (const char* const label : {"dump folder", "newest dump", "last crash"})
        EXPECT_FALSE(IsUnknown(facts[label])) << result;
    const Json json = JsonOf(Orvikctl(L"status --json"));
    EXPECT_EQ(json.at("log_folder"), logFolder);
    EXPECT_TRUE(json.at("log_folder_origin")
                    .get<std::string>()
                    .starts_with("Windows' default for the account, because "))
        << json;
}

TEST_F(OrvikctlStatus, RecoveryActions) {
    RunningService service(RunMode::kServiceManager);
    SystemProgram(L"sc.exe",
                  L"failure OrvikService reset= 86400 actions= restart/1000/restart/5000//0");
    const std::string recovery = FactsOf(Orvikctl(L"status"))["recovery"];
    const DWORD error = ErrorOfQueryingRecoveryActions();
    if (error == ERROR_SUCCESS)
        EXPECT_EQ(recovery, "restart after 1000 ms, restart after 5000 ms, none after 0 ms");
    else  // Wine: recovery_actions_test tests the words
        EXPECT_TRUE(
            recovery.starts_with("unknown: cannot query the recovery actions of the service ") &&
            recovery.ends_with("(error " + std::to_string(error) + ")"))
            << recovery;
}

}  // namespace
}  // namespace system_test
