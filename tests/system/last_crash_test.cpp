// orvikctl status says when and why the newest dump was written.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>
#include <tlhelp32.h>

#include "crash_dumps.h"
#include "installed_service.h"
#include "orvikctl_program.h"
#include "protocol/run_end.h"
#include "raw_client.h"
#include "tools/orvikctl/utc_time.h"

namespace system_test {
namespace {

namespace fs = std::filesystem;

std::string Now() {
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    return TimeOf(now);
}

Json StatusAsJson() {
    const Result result = Orvikctl(L"status --json");
    return Json::parse(result.output.empty() ? "" : result.output.front());
}

/// The line without its label.
std::string LastCrash() {
    constexpr char kLabel[] = "last crash    ";
    const Result result = Orvikctl(L"status");
    for (const std::string& line : result.output)
        if (line.starts_with(kLabel))
            return line.substr(std::size(kLabel) - 1);
    ADD_FAILURE() << result;
    return {};
}

/// The installed service does not run.
class LastCrashTest : public ServiceTest {
protected:
    LastCrashTest() { InstallService(ProgramPath(L"OrvikService.exe")); }
    ~LastCrashTest() override { EndLeftovers(); }

    /// Of the dumps of the service, as orvikctl knows it.
    static fs::path DumpFolder() {
        return ToUtf16(StatusAsJson().at("dump_folder").get<std::string>());
    }
};

TEST_F(LastCrashTest, IsNoDumpWithoutADump) {
    for (const auto& entry : fs::directory_iterator(DumpFolder()))
        if (entry.path().extension() == L".dmp")
            GTEST_SKIP() << "there is " << entry.path();
    EXPECT_EQ(LastCrash(), "no dump");
    const Json json = StatusAsJson();
    EXPECT_EQ(json.at("last_crash"), nullptr);
    EXPECT_FALSE(json.at("unknown").contains("last_crash"));
}

TEST_F(LastCrashTest, IsTheTimeAndTextOfTheExceptionThatEndedTheRun) {
    const fs::path folder = DumpFolder();
    const NewDumps dumps(folder);
    const NewDumps ownDumps(fs::temp_directory_path());
    const std::string before = Now();
    {
        RunningService service(RunMode::kServiceManager);
        RawClient client;
        client.SendRequest(kTransferNoData, 1, 7, TestUnitReady());  // there is no such camera
        EXPECT_EQ(service.WaitForEnd(std::chrono::seconds(60)), kRunEnded);
    }
    // Not the same again: Wine goes on saying for a while that it runs.
    InstallService(ProgramPath(L"OrvikService.exe"));
    const std::string after = Now();
    // Wine gives a service the temporary folder of the user who runs the tests.
    for (const fs::path& dump : ownDumps.Find())
        if (!fs::exists(folder / dump.filename()))
            fs::copy_file(dump, folder / dump.filename());
    ASSERT_EQ(dumps.Find().size(), 1u);

    const std::string line = LastCrash();
    ASSERT_NE(line.find(", "), std::string::npos) << line;
    const std::string time = line.substr(0, line.find(", "));
    EXPECT_LE(before, time);
    EXPECT_LE(time, after);
    EXPECT_EQ(line.substr(time.size()), ", Bad camera in request.");
    EXPECT_EQ(
        StatusAsJson().at("last_crash"),
        Json({{"time", time}, {"exception_code", kRunEnded}, {"text", "Bad camera in request."}}));
}

/// A thread of a process.
DWORD ThreadOf(DWORD process) {
    const UniqueHandle snapshot = OwnFile(::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Thread32First(snapshot.get(), &entry); more;
         more = ::Thread32Next(snapshot.get(), &entry))
        if (entry.th32OwnerProcessID == process)
            return entry.th32ThreadID;
    ADD_FAILURE() << "the process " << process << " has no thread";
    return 0;
}

/// A file that orvikctl takes for the newest dump.
class NewestDump {
public:
    explicit NewestDump(const fs::path& folder)
        : path(folder / L"01234567-89ab-cdef-0123-456789abcdef.dmp") {}
    ~NewestDump() {
        std::error_code ignored;
        fs::remove(path, ignored);
    }

    NewestDump(const NewestDump&) = delete;
    NewestDump& operator=(const NewestDump&) = delete;

    /// Writes a dump of a process, as if it had tried to read where there is no memory.
    void WriteFault(DWORD process) const {
        const UniqueHandle opened(::OpenProcess(PROCESS_ALL_ACCESS, FALSE, process));
        const UniqueHandle file = OwnFile(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                                        0, nullptr, CREATE_ALWAYS, 0, nullptr));
        CONTEXT context{};
        ::RtlCaptureContext(&context);
        EXCEPTION_RECORD record{};
        record.ExceptionCode = EXCEPTION_ACCESS_VIOLATION;
        EXCEPTION_POINTERS pointers{&record, &context};
        MINIDUMP_EXCEPTION_INFORMATION exception{ThreadOf(process), &pointers, FALSE};
        ASSERT_TRUE(::MiniDumpWriteDump(opened.get(), process, file.get(), MiniDumpNormal,
                                        &exception, nullptr, nullptr));
    }

    void Write(const std::string& content) const {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
    }

    void CutOffAt(std::uintmax_t size) const { fs::resize_file(path, size); }

    /// What is shown if it can't be read, for `reason`.
    std::string Unknown(const std::string& reason) const {
        return "unknown: cannot read the dump " + ToUtf8(path.wstring()) + ": " + reason;
    }

private:
    fs::path path;
};

TEST_F(LastCrashTest, OfADumpThatIsNotOfTheServicesExceptionIsItsCodeOrWhyItCannotBeRead) {
    const NewestDump dump(DumpFolder());
    {
        const RunningService service;
        dump.WriteFault(service.ProcessId());
    }
    InstallService(ProgramPath(L"OrvikService.exe"));  // RunningService has removed it
    const std::string line = LastCrash();
    EXPECT_TRUE(line.ends_with("Z, access violation (exception 0xc0000005)")) << line;
    const Json crash = StatusAsJson().at("last_crash");
    EXPECT_EQ(crash.at("exception_code"), DWORD{EXCEPTION_ACCESS_VIOLATION});
    EXPECT_EQ(crash.at("text"), nullptr);

    dump.CutOffAt(1000);
    EXPECT_EQ(LastCrash(),
              dump.Unknown("it is incomplete: it ends before the end of the record of the "
                           "exception"));
    dump.Write("This is not a dump, although its name says that it is one.");
    EXPECT_EQ(LastCrash(), dump.Unknown("it is not a dump"));
}

TEST_F(LastCrashTest, IsNotThatOfAnotherProgramWhoseDumpIsNewer) {
    const fs::path folder = DumpFolder();
    const fs::path older = folder / L"76543210-89ab-cdef-0123-456789abcdef.dmp";
    const Json before = StatusAsJson();
    const NewestDump dump(folder);
    dump.WriteFault(::GetCurrentProcessId());
    const Json after = StatusAsJson();
    EXPECT_EQ(after.at("last_crash"), before.at("last_crash"));
    EXPECT_EQ(after.at("newest_dump"), before.at("newest_dump"));

    std::ofstream(older, std::ios::binary) << "a dump of which only this is left";
    fs::last_write_time(older, fs::file_time_type::clock::now() - std::chrono::seconds(1));
    const Json status = StatusAsJson();
    fs::remove(older);
    EXPECT_EQ(status.at("newest_dump").at("name"), ToUtf8(older.filename().wstring()));
    EXPECT_EQ(status.at("last_crash"), nullptr);
    EXPECT_TRUE(status.at("unknown")
                    .at("last_crash")
                    .get<std::string>()
                    .ends_with(ToUtf8(older.filename().wstring()) + ": it is not a dump"))
        << status;
}

}  // namespace
}  // namespace system_test
