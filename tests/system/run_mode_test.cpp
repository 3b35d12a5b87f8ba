// How the program is started, what it prints in the foreground, and how a run ends.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "desktop_application.h"
#include "raw_client.h"
#include "support/plugged_camera.h"
#include "system_test.h"

namespace system_test {
namespace {

constexpr std::uint32_t kCamera = 1;  // the service's identifier of the first camera

using RunModeTest = SystemTest;

/// Without the lines about other devices of the machine.
std::vector<std::string> WithoutOtherDevices(std::vector<std::string> lines,
                                             const std::string& ownPath) {
    std::erase_if(lines, [&](const std::string& line) {
        return line.starts_with("DeviceArrival: ") && line != "DeviceArrival: " + ownPath;
    });
    return lines;
}

/// What the lines about new clients say about their pipe handles: decimal, whatever the text says,
/// and multiples of 4, as handles are.
std::vector<std::string> HandlesOfClients(const std::vector<std::string>& lines) {
    std::vector<std::string> handles;
    for (const std::string& line : lines) {
        const std::size_t at = line.find(" pipe to desktop client: 0x");
        if (at == std::string::npos)
            continue;
        handles.push_back(line.substr(line.find("0x") + 2));
        EXPECT_EQ(handles.back().find_first_not_of("0123456789"), std::string::npos) << line;
        EXPECT_EQ(std::atoi(handles.back().c_str()) % 4, 0) << line;
    }
    return handles;
}

TEST_F(RunModeTest, AnythingButTheExactSwitchIsForTheServiceControlManager) {
    const wchar_t* const commandLines[] = {
        L"",
        L"--CommandLine",
        L"--COMMANDLINE",
        L"--commandline extra",
        L"--commandline --commandline",
        L"--commandlines",
        L"-commandline",
        L"\"--commandline \"",
    };
    // All at once: outside the service control manager the call for it may take its time to fail.
    std::vector<std::unique_ptr<Program>> programs;
    for (const wchar_t* const arguments : commandLines)
        programs.push_back(std::make_unique<Program>(ProgramPath(L"OrvikService.exe"), arguments));
    for (const auto& program : programs) {
        EXPECT_EQ(program->WaitForEnd(), 0u);
        EXPECT_EQ(program->Output().WaitForEnd(), std::vector<std::string>());
        EXPECT_EQ(program->Errors().WaitForEnd(), std::vector<std::string>());
    }
}

TEST_F(RunModeTest, ForegroundPrintsItsProgressLineByLine) {
    PluggedCamera camera(bus);
    const std::string path = ToUtf8(bus.InterfacePath(camera.Id()));
    RunningService service;
    OutputLines& output = service.Output();
    const auto connect = [] {
        RawClient client;
        EXPECT_EQ(client.ReceiveMessage(), Attached(kCamera));
        return client;
    };
    const auto leave = [](RawClient& client) {
        EXPECT_EQ(client.Ask(kTransferNoData, 1, kCamera, TestUnitReady()), Succeeded(1, kCamera));
        client.Leave();
    };
    RawClient first = connect();
    RawClient second = connect();
    leave(second);
    output.WaitFor("ServerClient shutdown.", 1);
    leave(first);
    output.WaitFor("ServerClient shutdown.", 2);
    RawClient last = connect();
    last.SendRequest(kTransferNoData, 2, kCamera + 1, TestUnitReady());
    EXPECT_EQ(service.WaitForEnd(), 0u);  // an exception too

    const std::vector<std::string> lines = WithoutOtherDevices(output.WaitForEnd(), path);
    const std::vector<std::string> handles = HandlesOfClients(lines);
    ASSERT_EQ(handles.size(), 3u) << output.Text();
    std::vector<std::string> expected = {"DeviceArrival: " + path};
    std::vector<std::string> expectedErrors = {"Exception: Bad camera in request."};
    if (MayStartApplication())
        expected.push_back("Launching application...");
    else
        expectedErrors.insert(expectedErrors.begin(),
                              "Failed to get user token to launch application.");
    for (const std::string& line : {
             "attached main communicator pipe to desktop client: 0x" + handles[0],
             std::string("ServerClient connected."),
             "attached camera pipe to desktop client: 0x" + handles[1],
             std::string("ServerClient connected."),
             std::string("GetQueuedCompletionStatus returned FALSE: 109"),
             "CompletionKey: 0x" + handles[1],
             std::string("ServerClient shutdown."),
             std::string("GetQueuedCompletionStatus returned FALSE: 109"),
             "CompletionKey: 0x" + handles[0],
             std::string("Removing main communicator."),
             std::string("ServerClient shutdown."),
             "attached main communicator pipe to desktop client: 0x" + handles[2],
             std::string("ServerClient connected."),
             std::string("ServerClient shutdown."),
         })
        expected.push_back(line);
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(service.Errors().WaitForEnd(), expectedErrors);
}

TEST_F(RunModeTest, RunThatEndsNamesTheSessionsWhoseReadsArePending) {
    PluggedCamera camera(bus);
    RunningService service;
    RawClient bystander;
    EXPECT_EQ(bystander.ReceiveMessage(), Attached(kCamera));
    RawClient client;
    EXPECT_EQ(client.ReceiveMessage(), Attached(kCamera));
    client.SendRequest(kTransferNoData, 2, kCamera + 1, TestUnitReady());
    EXPECT_EQ(bystander.ReceiveUntilClosed(), Bytes());
    EXPECT_EQ(service.WaitForEnd(), 0u);
    // The one that asked waits for nothing; the other does.
    EXPECT_EQ(service.Errors()
                  .WaitFor("PROBLEM!!! ServerClient destructor with active "
                           "overlapped structure.")
                  .size(),
              1u);
    EXPECT_EQ(service.Errors().WaitForEnd().back(), "Exception: Bad camera in request.");
    EXPECT_EQ(service.Output().WaitFor("ServerClient shutdown.", 2).size(), 2u);
}

/// In both run modes.
class AnyRunMode : public SystemTest, public testing::WithParamInterface<RunMode> {};
INSTANTIATE_TEST_SUITE_P(Modes, AnyRunMode,
                         testing::Values(RunMode::kForeground, RunMode::kServiceManager), NameOf);

TEST_P(AnyRunMode, DevicePathOutsideAsciiDisturbsNothing) {
    vcam::PlugOptions strange;
    strange.instanceId = L"kamera-\u00e4\u4e2d-\U0001F4F7";
    std::unique_ptr<PluggedCamera> first;
    try {
        first = std::make_unique<PluggedCamera>(bus, strange);
    } catch (const std::system_error& error) {
        GTEST_SKIP() << "not possible on this system: " << error.what();
    }
    PluggedCamera second(bus);  // its path is written after the strange one
    RunningService service(GetParam());
    RawClient client;
    EXPECT_EQ(client.ReceiveMessage(), Attached(1));
    EXPECT_EQ(client.ReceiveMessage(), Attached(2));
    EXPECT_EQ(client.Ask(kTransferNoData, 1, 1, TestUnitReady()), Succeeded(1, 1));
    EXPECT_EQ(client.Ask(kTransferNoData, 2, 2, TestUnitReady()), Succeeded(2, 2));
    if (GetParam() == RunMode::kServiceManager)
        return;  // its output goes nowhere

    for (const vcam::CameraId id : {first->Id(), second.Id()})
        service.Output().WaitFor("DeviceArrival: " + ToUtf8(bus.InterfacePath(id)));
    EXPECT_NE(service.Output().Text().find("\xC3\xA4\xE4\xB8\xAD-\xF0\x9F\x93\xB7"),
              std::string::npos)
        << service.Output().Text();
    service.Output().WaitFor("attached main communicator pipe to desktop client: 0x");
    service.Output().WaitFor("ServerClient connected.");
}

}  // namespace
}  // namespace system_test
