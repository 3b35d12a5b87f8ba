// The service's crash server, used by other programs.

#include <cstddef>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include "crash_dumps.h"
#include "raw_client.h"
#include "system_test.h"

namespace system_test {
namespace {

/// One run of crash_client.
class CrashClient : public Program {
public:
    explicit CrashClient(const std::wstring& arguments)
        : Program(TestFolder() + L"\\crash_client.exe", arguments) {}
};

/// One that registers, and crashes when it is told to.
class CrashingClient {
public:
    explicit CrashingClient(int number = 0)
        : eventName(L"orvik-test-crash-" + std::to_wstring(number)),
          event(::CreateEventW(nullptr, TRUE, FALSE, eventName.c_str())),
          program(L"crash " + eventName) {}

    void WaitUntilRegistered() { program.Output().WaitFor("registered"); }
    void Crash() { ::SetEvent(event.get()); }
    void ExpectDumped() {
        EXPECT_EQ(program.WaitForEnd(), DWORD{EXCEPTION_ACCESS_VIOLATION});
        // Without its dump the test ends here: a file that is still being written is no dump yet.
        const std::vector<std::string> lines = program.Output().WaitForEnd();
        if (lines.empty() || lines.back() != "dumped")
            throw std::runtime_error("the crash server wrote no dump: " + program.Output().Text());
    }

private:
    std::wstring eventName;
    UniqueHandle event;
    CrashClient program;
};

/// That a client is served, to its end.
void ExpectServed() {
    CrashingClient client;
    client.WaitUntilRegistered();
    client.Crash();
    client.ExpectDumped();
}

class CrashServerTest : public ServiceTest {
protected:
    CrashServerTest() {
        wchar_t system[MAX_PATH] = {};
        ::GetSystemDirectoryW(system, MAX_PATH);
        ::SetCurrentDirectoryW(system);  // inherited by the service in the foreground
    }

    NewDumps dumps{CrashServerFolder()};
};

TEST_F(CrashServerTest, ForegroundDumpsAnotherProgramThatCrashes) {
    const RunningService service(RunMode::kForeground);
    ExpectServed();
    const Dump dump = KeepDump(dumps.Find(), L"client");
    ExpectFault(dump, L"crash_client.exe");
    EXPECT_EQ(dump.flags, std::uint64_t{MiniDumpNormal});  // what the client has asked for
}

// They crash two by two: each waits 15 s for its dump and no longer, and Wine writes dumps one
// after the other, in two seconds each.
TEST_F(CrashServerTest, ServiceDumpsTenClientsAndServesCamerasMeanwhile) {
    constexpr int kClients = 10;
    const RunningService service(RunMode::kServiceManager);
    std::vector<std::unique_ptr<CrashingClient>> clients;
    for (int i = 0; i < kClients; ++i)
        clients.push_back(std::make_unique<CrashingClient>(i));
    for (const auto& client : clients)
        client->WaitUntilRegistered();

    RawClient camera;
    for (std::size_t i = 0; i < kClients; i += 2) {
        clients[i]->Crash();
        clients[i + 1]->Crash();
        EXPECT_TRUE(camera.RoundTrip());
        clients[i]->ExpectDumped();
        clients[i + 1]->ExpectDumped();
    }
    EXPECT_EQ(dumps.Find().size(), std::size_t{kClients});
    for (const std::filesystem::path& dump : dumps.Find())
        ExpectFault(ReadDump(dump), L"crash_client.exe");
}

TEST_F(CrashServerTest, ClientThatDiesHalfWayIsForgotten) {
    const RunningService service(RunMode::kServiceManager);
    CrashClient half(L"half");
    EXPECT_EQ(half.WaitForEnd(), 0U);
    ExpectServed();
    EXPECT_EQ(dumps.Find().size(), 1U);
}

// The library registers one client at a time, and gives it all the time that it takes.
TEST_F(CrashServerTest, SilentClientKeepsOthersFromRegisteringUntilItGoes) {
    RunningService service(RunMode::kServiceManager);
    CrashClient silent(L"silent");
    silent.Output().WaitFor("connected");
    CrashClient refused(L"register-once");
    EXPECT_EQ(refused.WaitForEnd(), 1U);
    RawClient camera;
    EXPECT_TRUE(camera.RoundTrip());

    silent.Terminate();
    CrashClient registered(L"register");
    EXPECT_EQ(registered.WaitForEnd(), 0U);

    CrashClient last(L"silent");
    last.Output().WaitFor("connected");
    service.Stop();  // does not wait for it
    EXPECT_TRUE(last.IsRunning());
}

}  // namespace
}  // namespace system_test
