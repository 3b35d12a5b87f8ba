// What is left when the service crashes. A dump takes seconds, so each crash is looked at from all
// sides at once.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include "crash/win/crash.h"
#include "crash_dumps.h"
#include "crash_record.h"
#include "protocol/message.h"
#include "protocol/run_end.h"
#include "raw_client.h"
#include "system_test.h"

namespace system_test {
namespace {

namespace fs = std::filesystem;

/// How long a crash may take, until the process is gone.
constexpr std::chrono::seconds kCrashDeadline{60};

constexpr std::uint64_t kLargerDump =
    MiniDumpWithDataSegs | MiniDumpWithIndirectlyReferencedMemory | MiniDumpWithThreadInfo;

/// The path with the prefix that lets it be of any length.
std::wstring LongPath(const fs::path& path) {
    return LR"(\\?\)" + path.wstring();
}

/// A folder for a service that crashes, and for its files. Removed in the end.
class CrashFolder {
public:
    CrashFolder() : path(fs::temp_directory_path() / L"orvik crash test"), programs(path) {
        Remove();
        fs::create_directories(path);
    }
    ~CrashFolder() { Remove(); }

    CrashFolder(const CrashFolder&) = delete;
    CrashFolder& operator=(const CrashFolder&) = delete;

    /// Has programs put so deep that the path of a reporter beside them is too long by one.
    void GoDeep() {
        const std::size_t length = MAX_PATH - std::size(L"crashreporter.exe");
        while (programs.native().size() < length) {
            constexpr std::size_t kLongName = 40;
            const std::size_t rest = length - programs.native().size() - 1;
            programs /= std::wstring(rest > kLongName + 5 ? kLongName : rest, L'x');
        }
        fs::create_directories(LongPath(programs));
    }

    /// Copies a program here, under another name; its new path.
    std::wstring Put(const fs::path& program, const wchar_t* name) const {
        fs::copy_file(program, LongPath(programs / name));
        return (programs / name).wstring();
    }
    std::wstring PutCrashingService(const wchar_t* name = L"OrvikService.exe") const {
        return Put(fs::path(TestFolder()) / L"crashing_service.exe", name);
    }
    std::wstring PutReporter() const {
        return Put(fs::path(TestFolder()) / L"crash_recorder.exe", L"crashreporter.exe");
    }

    /// The arguments of crashing_service.
    std::wstring Arguments(const wchar_t* kind) const {
        return std::wstring(kind) + L" \"" + path.wstring() + L"\"";
    }

    // Of crashing_service.
    fs::path TemporaryFolder() const { return path / L"temp"; }
    /// The records of its log without their times.
    std::string Log() const {
        std::ifstream file(path / L"AppData/Local/Orvik/log.txt");
        std::string records;
        for (std::string line; std::getline(file, line);)
            records += line.substr(line.find(']') + 1) + "\n";
        return records;
    }

private:
    void Remove() const {
        std::error_code ignored;
        fs::remove_all(LongPath(path), ignored);
    }

    fs::path path;
    fs::path programs;
};

/// Hears of the reporters that are started.
class ReporterStarts {
public:
    ReporterStarts()
        : mailslot(OwnFile(::CreateMailslotW(
              kCrashMailslot, sizeof(CrashRecord),
              static_cast<DWORD>(std::chrono::milliseconds(kCrashDeadline).count()), nullptr))) {
        if (!mailslot)
            throw std::runtime_error("cannot make the mailslot");
    }

    /// Waits for one, until it has ended.
    CrashRecord Receive() {
        CrashRecord record{};
        DWORD count = 0;
        if (!::ReadFile(mailslot.get(), &record, sizeof(record), &count, nullptr) ||
            count != sizeof(record))
            throw std::runtime_error("the reporter has not been started");
        const UniqueHandle reporter(::OpenProcess(SYNCHRONIZE, FALSE, record.processId));
        if (reporter)  // otherwise it has ended already
            WaitForProcess(reporter.get(), kCrashDeadline, "the reporter does not end");
        return record;
    }

private:
    UniqueHandle mailslot;
};

void ExpectDetachedOnTheDesktop(const CrashRecord& record) {
    EXPECT_STREQ(record.desktop, LR"(winsta0\default)");
    EXPECT_FALSE(record.hasConsole);
}

/// The third field of a reporter's command line.
fs::path DumpOf(const CrashRecord& record) {
    const std::wstring line = record.commandLine;
    const std::size_t start = line.find(L"|*|", line.find(L"|*|") + 1) + 3;
    return line.substr(start, line.find(L"|*|", start) - start);
}

class CrashTest : public ServiceTest {
protected:
    /// Says that a service has been crashed which writes its dumps itself: its dump.
    static fs::path ExpectServicesReport(const CrashRecord& record, const std::wstring& reporter) {
        fs::path file = DumpOf(record);
        EXPECT_EQ(
            ToUtf8(record.commandLine),
            ToUtf8(L"\"" + reporter + L"\" |*|0|*|" + record.temporaryFolder + L"\\" +
                   file.filename().wstring() + L"|*|OrvikService|*|4.0.4 (unknown)|*|Unknown|*|"));
        ExpectDetachedOnTheDesktop(record);
        return file;
    }

    /// The report of an executable with another name whose dump a crash server has written: the
    /// server does not pass on the dump's name.
    static void ExpectReportWithoutAName(const CrashRecord& record, const std::wstring& reporter) {
        EXPECT_EQ(
            ToUtf8(record.commandLine),
            ToUtf8(L"\"" + reporter + L"\" |*|1|*|\\.dmp|*|Orvik|*|4.0.4 (unknown)|*|Unknown|*|"));
    }

    CrashFolder folder;
    ReporterStarts reporters;
};

TEST_F(CrashTest, ExceptionLeavesASmallDumpAndStartsTheReporter) {
    const std::wstring reporter = folder.PutReporter();
    RunningService service(RunMode::kServiceManager,
                           folder.Put(ProgramPath(L"OrvikService.exe"), L"OrvikService.exe"));
    RawClient client;
    client.SendRequest(kTransferNoData, 1, 7, TestUnitReady());  // there is no such camera
    const CrashRecord record = reporters.Receive();
    EXPECT_EQ(service.WaitForEnd(kCrashDeadline), kRunEnded);

    const Dump dump = KeepDump({ExpectServicesReport(record, reporter)}, L"exception");
    EXPECT_EQ(dump.exceptionCode, kRunEnded);
    EXPECT_EQ(dump.flags, std::uint64_t{MiniDumpNormal});
    EXPECT_TRUE(dump.hasItsThread);
}

TEST_F(CrashTest, FaultLeavesADumpAndStartsTheReporter) {
    const std::wstring reporter = folder.PutReporter();
    RunningService service(RunMode::kServiceManager, folder.PutCrashingService(),
                           folder.Arguments(L"fault"));
    EXPECT_TRUE(fs::exists(folder.TemporaryFolder()));  // it has made it
    EXPECT_EQ(folder.Log(), "");
    const RawClient client;
    const CrashRecord record = reporters.Receive();
    EXPECT_EQ(service.WaitForEnd(kCrashDeadline), DWORD{EXCEPTION_ACCESS_VIOLATION});
    const fs::path file = ExpectServicesReport(record, reporter);
    EXPECT_EQ(file.parent_path(), folder.TemporaryFolder());
    ExpectFault(KeepDump({file}, L"fault"), L"OrvikService.exe");
    EXPECT_EQ(folder.Log(), "");
}

// Which exception the dump is about depends on the C++ library; docs/operating.md says more.
TEST_F(CrashTest, PureVirtualCallLeavesADumpAndStartsTheReporter) {
    const std::wstring reporter = folder.PutReporter();
    RunningService service(RunMode::kServiceManager, folder.PutCrashingService(),
                           folder.Arguments(L"pure-call"));
    const RawClient client;
    const CrashRecord record = reporters.Receive();
    service.WaitForEnd(kCrashDeadline);
    EXPECT_TRUE(KeepDump({ExpectServicesReport(record, reporter)}, L"pure-call").hasItsThread);
    EXPECT_EQ(folder.Log(), "");
}

#ifndef _MSC_VER
// The C runtime of GCC has no handler for it: the function that got the parameter fails, no more.
TEST_F(CrashTest, InvalidParameterIsAnErrorOfTheFunctionAlone) {
    RunningService service(RunMode::kServiceManager, folder.PutCrashingService(),
                           folder.Arguments(L"invalid-parameter"));
    RawClient client;
    EXPECT_TRUE(client.RoundTrip());
    EXPECT_TRUE(folder.Log().starts_with("[ERROR][test]:\tthe C runtime returned 22\n"))
        << folder.Log();
    service.Stop();
}
#endif

// It has asked a crash server that was there before it, one that is not a part of itself.
TEST_F(CrashTest, ExecutableNamedOtherwiseAsksTheCrashServerForALargerDump) {
    const std::wstring reporter = folder.PutReporter();
    wchar_t system[MAX_PATH] = {};
    ::GetSystemDirectoryW(system, MAX_PATH);
    ::SetCurrentDirectoryW(system);
    const NewDumps dumps(CrashServerFolder());
    const auto server = StartCrashServer();
    RunningService service(RunMode::kServiceManager, folder.PutCrashingService(L"Other.exe"),
                           folder.Arguments(L"fault"));
    const RawClient client;
    const CrashRecord record = reporters.Receive();
    EXPECT_EQ(service.WaitForEnd(kCrashDeadline), DWORD{EXCEPTION_ACCESS_VIOLATION});
    ExpectReportWithoutAName(record, reporter);
    ExpectDetachedOnTheDesktop(record);
    EXPECT_TRUE(fs::is_directory(fs::path(record.localFolder) / L"Orvik" / L"Crash Reports"));
    EXPECT_EQ(folder.Log(), "");

    const Dump dump = KeepDump(dumps.Find(), L"other-name");
    ExpectFault(dump, L"Other.exe");
    EXPECT_EQ(dump.flags, kLargerDump);
}

// Whether there is a whole dump then is the system's affair: a process that has crashed is to write
// its own. On Wine there is none.
TEST_F(CrashTest, ExecutableNamedOtherwiseThatIsItsOwnCrashServerStartsTheReporter) {
    const std::wstring reporter = folder.PutReporter();
    const NewDumps dumps(CrashServerFolder());
    RunningService service(RunMode::kServiceManager, folder.PutCrashingService(L"Other.exe"),
                           folder.Arguments(L"fault"));
    const RawClient client;
    const CrashRecord record = reporters.Receive();
    EXPECT_EQ(service.WaitForEnd(kCrashDeadline), DWORD{EXCEPTION_ACCESS_VIOLATION});
    ExpectReportWithoutAName(record, reporter);
    EXPECT_EQ(folder.Log(), "");
}

// The crash server that it has registered with is destroyed before the process ends.
TEST_F(CrashTest, ExceptionInAProcessThatIsItsOwnCrashServerLeavesADumpThatTheReporterIsTold) {
    const std::wstring reporter = folder.PutReporter();
    RunningService service(RunMode::kServiceManager,
                           folder.Put(ProgramPath(L"OrvikService.exe"), L"Other.exe"));
    RawClient client;
    client.SendRequest(kTransferNoData, 1, 7, TestUnitReady());  // there is no such camera
    const CrashRecord record = reporters.Receive();
    EXPECT_EQ(service.WaitForEnd(kCrashDeadline), kRunEnded);
    const fs::path file = DumpOf(record);
    EXPECT_EQ(file.parent_path(), fs::path(record.localFolder) / L"Orvik" / L"Crash Reports");
    EXPECT_EQ(ToUtf8(record.commandLine), ToUtf8(L"\"" + reporter + L"\" |*|1|*|" + file.wstring() +
                                                 L"|*|Orvik|*|4.0.4 (unknown)|*|Unknown|*|"));
    const Dump dump = KeepDump({file}, L"own-server");
    EXPECT_EQ(dump.exceptionCode, kRunEnded);
    EXPECT_EQ(dump.flags, kLargerDump);
    EXPECT_TRUE(dump.hasItsThread);
}

// No dump is looked at here, which takes seconds: these are asked of a server that is a part of
// what has crashed.
TEST_F(CrashTest, ReporterThatIsMissingIsLogged) {
    RunningService service(RunMode::kServiceManager, folder.PutCrashingService(L"Other.exe"),
                           folder.Arguments(L"fault"));
    const RawClient client;
    EXPECT_EQ(service.WaitForEnd(kCrashDeadline), DWORD{EXCEPTION_ACCESS_VIOLATION});
    EXPECT_EQ(folder.Log(), "[ERROR][crash]:\tCreateProcess failed\n");
}

TEST_F(CrashTest, ReporterWhosePathIsTooLongIsLogged) {
    folder.GoDeep();
    RunningService service(RunMode::kServiceManager, folder.PutCrashingService(L"Other.exe"),
                           folder.Arguments(L"fault"));
    EXPECT_EQ(folder.Log(), "");
    const RawClient client;
    EXPECT_EQ(service.WaitForEnd(kCrashDeadline), DWORD{EXCEPTION_ACCESS_VIOLATION});
    EXPECT_EQ(folder.Log(), "[ERROR][crash]:\tNo path to crashreporter\n");
}

/// Holds the crash server's pipe and answers no client.
class DeafCrashServer {
public:
    DeafCrashServer() {
        pipe = OwnFile(::CreateNamedPipeW(kCrashPipeName, PIPE_ACCESS_DUPLEX,
                                          PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE | PIPE_WAIT, 1,
                                          0, 0, 0, nullptr));
        client = OwnFile(::CreateFileW(kCrashPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                       OPEN_EXISTING, 0, nullptr));
        if (!pipe || !client)
            throw std::runtime_error("the crash server's pipe cannot be taken");
    }

private:
    UniqueHandle pipe;    // its only instance
    UniqueHandle client;  // which is busy
};

TEST_F(CrashTest, ExecutableNamedOtherwiseWritesItsDumpItselfIfNoCrashServerAnswers) {
    const std::wstring reporter = folder.PutReporter();
    const DeafCrashServer deaf;
    RunningService service(RunMode::kServiceManager, folder.PutCrashingService(L"Other.exe"),
                           folder.Arguments(L"fault"));
    const RawClient client;
    const CrashRecord record = reporters.Receive();
    EXPECT_EQ(service.WaitForEnd(kCrashDeadline), DWORD{EXCEPTION_ACCESS_VIOLATION});
    const fs::path file = DumpOf(record);
    EXPECT_EQ(file.parent_path(), fs::path(record.localFolder) / L"Orvik" / L"Crash Reports");
    EXPECT_EQ(ToUtf8(record.commandLine), ToUtf8(L"\"" + reporter + L"\" |*|1|*|" + file.wstring() +
                                                 L"|*|Orvik|*|4.0.4 (unknown)|*|Unknown|*|"));
    EXPECT_EQ(folder.Log(), "");
    const Dump dump = KeepDump({file}, L"no-server");
    ExpectFault(dump, L"Other.exe");
    EXPECT_EQ(dump.flags, kLargerDump);
}

TEST_F(CrashTest, ForegroundHandlesNoCrashOfItsOwn) {
    const NewDumps dumps(CrashServerFolder());
    RunningService service(RunMode::kForeground, folder.PutCrashingService(),
                           folder.Arguments(L"fault"));
    const RawClient client;
    EXPECT_EQ(service.WaitForEnd(), DWORD{EXCEPTION_ACCESS_VIOLATION});
    EXPECT_EQ(folder.Log(), "");  // a handler would have missed its reporter
    EXPECT_EQ(dumps.Find(), std::vector<fs::path>());
    EXPECT_FALSE(fs::exists(folder.TemporaryFolder()));
}

TEST_F(CrashTest, ServiceWithoutATemporaryFolderRunsOnWithoutAHandler) {
    const struct {
        std::wstring temporaryFolder;
        std::string message;
    } cases[] = {
        {LR"(C:\there is no such folder\temp)", "CreateDirectoryW failed for temp directory"},
        {LR"(C:\)" + std::wstring(MAX_PATH, L'x'), "GetTempPath failed"},
    };
    const std::wstring program = folder.PutCrashingService();
    std::string log;
    for (const auto& [temporaryFolder, message] : cases) {
        RunningService service(RunMode::kServiceManager, program,
                               folder.Arguments(L"none") + L" \"" + temporaryFolder + L"\"");
        RawClient client;
        EXPECT_TRUE(client.RoundTrip());
        log += "[ERROR][crash]:\t" + message + "\n";
        EXPECT_EQ(folder.Log(), log);
        service.Stop();
    }
}

}  // namespace
}  // namespace system_test
