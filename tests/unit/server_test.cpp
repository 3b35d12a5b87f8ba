// The listening pipe and the registry of clients.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include "connect_gap.h"
#include "device/device.h"
#include "device/io_operation.h"
#include "device/windows_exception.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "protocol/message.h"
#include "server/server.h"
#include "service/dispatcher.h"
#include "session/server_client.h"
#include "windows/unique_memory.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::CreateNamedPipeW) __imp_CreateNamedPipeW;
extern decltype(&::DisconnectNamedPipe) __imp_DisconnectNamedPipe;
extern decltype(&::PostQueuedCompletionStatus) __imp_PostQueuedCompletionStatus;
}

namespace {

/// Sees how pipe instances are made, and the handle of the one that listens.
class PipeCreation {
public:
    PipeCreation() : hook(&__imp_CreateNamedPipeW, Create) { current = this; }
    ~PipeCreation() { current = nullptr; }

    HANDLE listening = nullptr;
    std::wstring name;
    DWORD openMode = 0;
    DWORD pipeMode = 0;
    DWORD instances = 0;
    DWORD outSize = 0;
    DWORD inSize = 0;
    DWORD timeOut = 1;
    BOOL inherit = TRUE;

private:
    static HANDLE WINAPI Create(LPCWSTR pipe, DWORD open, DWORD mode, DWORD maximum, DWORD out,
                                DWORD in, DWORD wait, LPSECURITY_ATTRIBUTES security) {
        PipeCreation& self = *current;
        self.name = pipe;
        self.openMode = open;
        self.pipeMode = mode;
        self.instances = maximum;
        self.outSize = out;
        self.inSize = in;
        self.timeOut = wait;
        self.inherit = security->bInheritHandle;
        self.listening = self.hook.Original()(pipe, open, mode, maximum, out, in, wait, security);
        return self.listening;
    }

    static inline PipeCreation* current = nullptr;
    ImportHook<decltype(&::CreateNamedPipeW)> hook;
};

class ServerTest : public InProcessService {};

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

TEST_F(ServerTest, LineOfANewClientHasItsPipeHandleInDecimal) {
    const PipeCreation creation;
    StartServer();
    const HANDLE pipe = creation.listening;
    const auto client = Connect();
    const auto value = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pipe));
    EXPECT_EQ(output.CountOut("desktop client: 0x" + std::to_string(value) + "\n"), 1u)
        << output.Out();
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
    std::byte nobody{};
    auto* const unknown = reinterpret_cast<ServerClient*>(&nobody);
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

TEST_F(ServerTest, PipeIsMadeWithTheAgreedParameters) {
    const PipeCreation creation;
    StartServer();
    EXPECT_EQ(creation.name, kCameraPipeName);
    EXPECT_EQ(creation.openMode, 0x40000003u);
    EXPECT_EQ(creation.pipeMode, 8u);  // local clients only, bytes, blocking
    EXPECT_EQ(creation.instances, 255u);
    EXPECT_EQ(creation.outSize, 0x10000u);
    EXPECT_EQ(creation.inSize, 0x10000u);
    EXPECT_EQ(creation.timeOut, 0u);
    EXPECT_FALSE(creation.inherit);
}

TEST_F(ServerTest, LivePipeGrantsFullAccessToTheLocalLogonGroupAndLocalSystemAlone) {
    StartServer();
    const HANDLE pipe = ::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
    ASSERT_NE(pipe, INVALID_HANDLE_VALUE);
    const UniqueHandle owner(pipe);
    port.DispatchUntil("the connection",
                       [&] { return output.CountOut("ServerClient connected.") == 1; });

    PACL list = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(::GetSecurityInfo(pipe, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                &list, nullptr, &descriptor),
              static_cast<DWORD>(ERROR_SUCCESS));
    const std::unique_ptr<void, LocalFreer> descriptorOwner(descriptor);
    ASSERT_NE(list, nullptr);
    std::vector<std::wstring> granted;
    for (DWORD index = 0; index < list->AceCount; ++index) {
        void* entry = nullptr;
        ASSERT_TRUE(::GetAce(list, index, &entry));
        const auto& allowed = *static_cast<const ACCESS_ALLOWED_ACE*>(entry);
        EXPECT_EQ(allowed.Header.AceType, ACCESS_ALLOWED_ACE_TYPE);
        EXPECT_EQ(allowed.Header.AceFlags, 0);
        EXPECT_EQ(allowed.Mask, 0x1F01FFu);
        wchar_t* text = nullptr;
        ASSERT_TRUE(::ConvertSidToStringSidW(const_cast<DWORD*>(&allowed.SidStart), &text));
        const std::unique_ptr<wchar_t, LocalFreer> textOwner(text);
        granted.emplace_back(text);
    }
    EXPECT_EQ(granted, (std::vector<std::wstring>{L"S-1-2-0", L"S-1-5-18"}));

    DWORD flags = 0;
    DWORD outSize = 0;
    DWORD inSize = 0;
    ASSERT_TRUE(::GetNamedPipeInfo(pipe, &flags, &outSize, &inSize, nullptr));
    EXPECT_EQ(flags & PIPE_TYPE_MESSAGE, 0u);
    EXPECT_EQ(outSize, 0x10000u);
    EXPECT_EQ(inSize, 0x10000u);
}

TEST_F(ServerTest, ClientFasterThanConnectNamedPipeIsServed) {
    StartServer();
    std::vector<std::unique_ptr<PipeClient>> clients;
    {
        // Each instance has its client before ConnectNamedPipe is called for it.
        ConnectGap gap([&] {
            if (clients.size() < 20)
                clients.push_back(std::make_unique<PipeClient>(port));
        });
        const auto starter = Connect();
        EXPECT_EQ(gap.error, static_cast<DWORD>(ERROR_PIPE_CONNECTED));
        port.DispatchUntil("20 connections",
                           [&] { return output.CountOut("ServerClient connected.") == 21; });
        EXPECT_EQ(gap.error, static_cast<DWORD>(ERROR_IO_PENDING));
    }
    ASSERT_EQ(clients.size(), 20u);
    for (const auto& client : clients)
        RoundTrip(*client);
    EXPECT_EQ(output.CountError("Error caught"), 0u);
    ExpectServing();
}

TEST_F(ServerTest, ClientGoneBeforeConnectNamedPipeEndsAcceptingWithOneLine) {
    StartServer();
    std::unique_ptr<PipeClient> first;
    {
        const ConnectGap gap([&] { PipeClient(port, PipeClient::Reading::kNever).Close(); });
        first = Connect();
        EXPECT_EQ(gap.error, static_cast<DWORD>(ERROR_NO_DATA));
    }
    EXPECT_EQ(output.Error(), "Error caught in ListenOnPipe().\n");
    RoundTrip(*first);  // who is connected is served
    EXPECT_THROW(PipeClient second(port), std::system_error);
}

TEST_F(ServerTest, PipeNameTakenBySomebodyElseIsOneLineAndNoException) {
    const UniqueHandle other = OwnFile(::CreateNamedPipeW(kCameraPipeName, PIPE_ACCESS_DUPLEX,
                                                          PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr));
    ASSERT_TRUE(other);
    EXPECT_NO_THROW(StartServer());
    EXPECT_EQ(output.Error(), "Error caught in ListenOnPipe().\n");
}

TEST_F(ServerTest, FailedAcceptLeavesTheDispatcherAsAnException) {
    const PipeCreation creation;
    StartServer();
    // Behind the server's back. What makes the accept fail differs between systems.
    if (!::DisconnectNamedPipe(creation.listening))
        ::CloseHandle(creation.listening);
    EXPECT_THROW(port.DispatchOne(), WindowsException);
}

TEST_F(ServerTest, AbortedAcceptIsFreedWithoutItsCallback) {
    const PipeCreation creation;
    StartServer();
    const auto client = Connect();
    ASSERT_TRUE(::CancelIoEx(creation.listening, nullptr));
    port.DispatchQueued();
    EXPECT_EQ(output.CountOut("GetQueuedCompletionStatus returned FALSE: 995\n"), 1u);
    EXPECT_EQ(output.Error(), "");
    RoundTrip(*client);
}

TEST_F(ServerTest, ClientThatLeavesBeforeItsFirstReadEndsTheRun) {
    StartServer();
    PipeClient(port, PipeClient::Reading::kNever).Close();
    try {
        port.DispatchQueued();
        FAIL() << "no exception";
    } catch (const WindowsException& exception) {
        EXPECT_EQ(
            std::string(exception.what()).find("DoRead ReadFile failed.  GetLastError() = 0x6d ("),
            0u)
            << exception.what();
    }
    port.DispatchQueued();  // the marker of the call above
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
    try {
        const HookedImport<&__imp_PostQueuedCompletionStatus> post(
            [&](HANDLE target, DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped) {
                EXPECT_EQ(target, port.Get());
                EXPECT_EQ(bytes, 0u);
                EXPECT_EQ(key, 0u);
                EXPECT_EQ(IoOperation::FromOverlapped(overlapped)->status, 3u);
                ::SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return FALSE;
            });
        server->PostQuit();
        FAIL() << "no exception";
    } catch (const WindowsException& exception) {
        EXPECT_EQ(std::string(exception.what())
                      .find("PostQueuedCompletionStatus failed.  GetLastError() = 0x8 ("),
                  0u)
            << exception.what();
    }
    EXPECT_EQ(port.Operations(), operations);
    ExpectServing();
}

/// Clients on a thread of their own, one after the other: each takes its notification and one
/// answer and leaves. Plain calls of Windows only: nothing here allocates.
class ClientThread {
public:
    explicit ClientThread(int clients) : count(clients) {
        thread.reset(::CreateThread(nullptr, 0, Run, this, 0, nullptr));
    }
    ~ClientThread() { ::WaitForSingleObject(thread.get(), INFINITE); }

    ClientThread(const ClientThread&) = delete;
    ClientThread& operator=(const ClientThread&) = delete;

    /// Clients that were served as they should be; meaningful when the thread has ended.
    int Served() const noexcept { return served; }
    /// The first thing that went wrong, or null.
    const char* Problem() const noexcept { return problem; }
    bool HasEnded() const noexcept {
        return ::WaitForSingleObject(thread.get(), 0) == WAIT_OBJECT_0;
    }

private:
    static DWORD WINAPI Run(void* self) {
        static_cast<ClientThread*>(self)->ServeAll();
        return 0;
    }

    void ServeAll() {
        for (int index = 0; index < count && problem == nullptr; ++index)
            problem = BeServed();
    }

    static bool ReadAll(HANDLE pipe, void* to, DWORD size) {
        DWORD done = 0;
        for (DWORD at = 0; at < size; at += done) {
            if (!::ReadFile(pipe, static_cast<char*>(to) + at, size - at, &done, nullptr))
                return false;
        }
        return true;
    }

    const char* BeServed() {
        UniqueHandle pipe;
        while (!(pipe = OwnFile(::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0,
                                              nullptr, OPEN_EXISTING, 0, nullptr)))) {
            if (::GetLastError() != ERROR_PIPE_BUSY)
                return "connect failed";
            ::WaitNamedPipeW(kCameraPipeName, 20000);
        }
        MessageHeader header{};
        if (!ReadAll(pipe.get(), &header, sizeof(header)) || header.messageType != kCameraAttached)
            return "no notification";
        const struct {
            MessageHeader header{kTransferIn, 4711, 1, 16};
            std::uint8_t command[16] = {0x08, 0, 0, 0, 1};
        } request;
        DWORD done = 0;
        char data[512];
        if (!::WriteFile(pipe.get(), &request, sizeof(request), &done, nullptr))
            return "request not written";
        if (!ReadAll(pipe.get(), &header, sizeof(header)) || header.requestId != 4711 ||
            header.messageType != kTransferSucceeded || header.bodyLength != sizeof(data) ||
            !ReadAll(pipe.get(), data, sizeof(data)))
            return "no answer";
        ++served;
        return nullptr;
    }

    int count;
    int served = 0;
    const char* problem = nullptr;
    UniqueHandle thread;
};

TEST_F(ServerTest, HundredsOfClientsThatComeAndGoInParallelAreAllServed) {
    Plug();
    StartServer();
    auto steady = Connect();
    constexpr int kThreads = 4;
    constexpr int kClients = 75;
    {
        ClientThread threads[kThreads] = {ClientThread(kClients), ClientThread(kClients),
                                          ClientThread(kClients), ClientThread(kClients)};
        std::uint32_t sent = 0;
        port.DispatchUntil("the end of the storm", [&] {
            // Meanwhile another client transfers all the time.
            if (steady->Messages().size() == sent + 1)
                steady->Write(MessageBytes(kTransferIn, ++sent, kFirstCamera, Read6(0, 1)));
            return Shutdowns() == kThreads * kClients;
        });
        for (const ClientThread& thread : threads) {
            port.DispatchUntil("a thread's end", [&] { return thread.HasEnded(); });
            EXPECT_EQ(thread.Problem(), nullptr) << thread.Problem();
            EXPECT_EQ(thread.Served(), kClients);
        }
        EXPECT_GT(sent, 10u);
    }
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
