// The registry of clients, and the server's start and end.

#include <algorithm>
#include <cstddef>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/device.h"
#include "device/io_operation.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "pipe_creation.h"
#include "protocol/message.h"
#include "server/server.h"
#include "service/dispatcher.h"
#include "session/server_client.h"
#include "windows_error.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::DisconnectNamedPipe) __imp_DisconnectNamedPipe;
extern decltype(&::PostQueuedCompletionStatus) __imp_PostQueuedCompletionStatus;
}

namespace {

using ServerTest = InProcessService;

TEST_F(ServerTest, FirstClientIsMainCommunicatorAndTheSecondACameraPipe) {
    StartServer();
    EXPECT_FALSE(server->GetMainCommunicator());
    output.Clear();
    const auto first = Connect();
    EXPECT_TRUE(std::regex_match(
        output.Out(), std::regex("attached main communicator pipe to desktop client: 0x[0-9]+\n"
                                 "ServerClient connected.\n")))
        << output.Out();
    const auto main = server->GetMainCommunicator();
    EXPECT_TRUE(main);
    output.Clear();
    const auto second = Connect();
    EXPECT_TRUE(std::regex_match(output.Out(),
                                 std::regex("attached camera pipe to desktop client: 0x[0-9]+\n"
                                            "ServerClient connected.\n")))
        << output.Out();
    EXPECT_EQ(server->GetMainCommunicator(), main);
    EXPECT_EQ(output.Error(), "");
}

TEST_F(ServerTest, NextNewClientReplacesAMainCommunicatorThatHasLeft) {
    StartServer();
    auto first = Connect();
    const auto second = Connect();
    output.Clear();
    Leave(first);
    EXPECT_EQ(output.CountOut("Removing main communicator.\n"), 1u) << output.Out();
    EXPECT_EQ(output.CountOut("Launching application..."), 0u);
    EXPECT_FALSE(server->GetMainCommunicator()) << "a camera pipe was promoted";
    const auto third = Connect();
    EXPECT_EQ(output.CountOut("attached main communicator pipe"), 1u) << output.Out();
    RoundTrip(*second);
    RoundTrip(*third);
    EXPECT_EQ(output.Error(), "");
}

TEST_F(ServerTest, CameraPipeThatLeavesIsRemovedQuietly) {
    StartServer();
    const auto first = Connect();
    auto second = Connect();
    const auto third = Connect();
    output.Clear();
    Leave(second);
    EXPECT_EQ(output.CountOut("ServerClient shutdown.\n"), 1u);
    EXPECT_EQ(output.CountOut("Removing main communicator."), 0u);
    EXPECT_EQ(output.Error(), "");
    RoundTrip(*first);
    RoundTrip(*third);
}

TEST_F(ServerTest, CameraPipeThatLeavesWithoutAMainCommunicatorSaysSo) {
    StartServer();
    auto first = Connect();
    auto second = Connect();
    Leave(first);
    EXPECT_EQ(output.Error(), "");
    Leave(second);
    EXPECT_EQ(output.Error(), "No main communicator when RemoveClient() called.\n");
}

TEST_F(ServerTest, RemovingAnUnknownClientOnlySaysSo) {
    StartServer();
    std::byte place{};
    auto* const unknown = reinterpret_cast<ServerClient*>(&place);
    server->RemoveClient(unknown);
    EXPECT_EQ(output.Error(),
              "No main communicator when RemoveClient() called.\n"
              "RemoveClient() on non-existing client.\n");
    const auto first = Connect();
    const auto second = Connect();
    output.Clear();
    server->RemoveClient(unknown);
    EXPECT_EQ(output.Error(), "RemoveClient() on non-existing client.\n");
    RoundTrip(*first);
    RoundTrip(*second);
}

TEST_F(ServerTest, NewClientsOfBothKindsLearnOfAllCamerasInAscendingOrderBeforeAnyAnswer) {
    Plug();
    Plug();
    StartServer();
    PipeClient first(port);
    port.DispatchUntil("the first client",
                       [&] { return output.CountOut("ServerClient connected.") == 1; });
    PipeClient second(port);
    for (PipeClient* const client : {&first, &second}) {
        SCOPED_TRACE(client == &first ? "main communicator" : "camera pipe");
        client->Write(MessageBytes(kTransferIn, 99, 0));
        WaitForMessage(*client, 3);
        const std::vector<Message> messages = client->Messages();
        for (std::uint32_t index = 0; index < 2; ++index) {
            EXPECT_EQ(messages[index].header.messageType, 4u);
            EXPECT_EQ(messages[index].header.requestId, 0xFFFFFFFFu);
            EXPECT_EQ(messages[index].header.cameraId, index + 1);
            EXPECT_EQ(messages[index].header.bodyLength, 0u);
        }
        EXPECT_EQ(messages[2].header.requestId, 99u);
    }
}

TEST_F(ServerTest, QuitEndsTheLoopAndLeavesWhatIsQueuedBehindIt) {
    StartServer();
    server->PostQuit();
    server->PostQuit();
    const std::size_t operations = port.Operations();
    EXPECT_FALSE(DispatchCompletion(port.Get()));
    EXPECT_EQ(port.Operations(), operations - 1) << "the quit operation was not freed";
    RunDispatcher(port.Get());  // ends with the second one
}

TEST_F(ServerTest, QuitThatCannotBePostedIsThrownAndFreed) {
    StartServer();
    const std::size_t operations = port.Operations();
    {
        const HookedImport<&__imp_PostQueuedCompletionStatus> post(
            [&](HANDLE target, DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped) {
                EXPECT_EQ(target, port.Get());
                EXPECT_EQ(bytes, 0u);
                EXPECT_EQ(key, 0u);
                EXPECT_EQ(IoOperation::FromOverlapped(overlapped)->status, 3u);
                ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return FALSE;
            });
        EXPECT_TRUE(StartsWith(WindowsErrorOf([&] { server->PostQuit(); }),
                               "PostQueuedCompletionStatus failed.  GetLastError() = 0x8 ("));
    }
    EXPECT_EQ(port.Operations(), operations);
    ExpectServing();
}

TEST_F(ServerTest, ServerStartsAgainOnTheSamePort) {
    for (int round = 0; round < 3; ++round) {
        StartServer();
        ExpectServing();
        StopServer();
    }
}

TEST_F(ServerTest, DestructorReleasesCameraPipesThenMainCommunicatorThenListenerThenCameras) {
    const PipeCreation creation;
    Plug();
    StartServer();
    std::vector<std::pair<HANDLE, std::string>> names;
    names.emplace_back(creation.listening, "main communicator");
    const auto main = ConnectAndAsk();
    names.emplace_back(creation.listening, "camera pipe");
    const auto pipe = ConnectAndAsk();
    names.emplace_back(creation.listening, "listener");
    server->FindDevice(kFirstCamera)->Open();  // so that its end can be seen

    std::string calls;
    const auto add = [&](const char* call, HANDLE handle) {
        const auto found = std::find_if(names.begin(), names.end(),
                                        [handle](const auto& one) { return one.first == handle; });
        calls += call + (found != names.end() ? found->second : std::string("camera")) + "\n";
    };
    {
        using Close = HookedImport<&__imp_CloseHandle>;
        using Disconnect = HookedImport<&__imp_DisconnectNamedPipe>;
        const Close close([&](HANDLE handle) {
            add("close ", handle);
            return Close::Original(handle);
        });
        const Disconnect disconnect([&](HANDLE handle) {
            add("disconnect ", handle);
            return Disconnect::Original(handle);
        });
        server.reset();
    }
    EXPECT_EQ(calls,
              "close camera pipe\n"
              "close main communicator\n"
              "disconnect listener\n"
              "close listener\n"
              "close camera\n");
}

}  // namespace
