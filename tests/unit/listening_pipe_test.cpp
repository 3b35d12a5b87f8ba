// The listening pipe: how its instances are made, and clients that are faster or gone.

#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <aclapi.h>
#include <sddl.h>

#include "connect_gap.h"
#include "in_process_service.h"
#include "pipe_creation.h"
#include "protocol/message.h"
#include "windows/unique_handle.h"
#include "windows/unique_memory.h"
#include "windows_error.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::DisconnectNamedPipe) __imp_DisconnectNamedPipe;
}

namespace {

using ListeningPipeTest = InProcessService;

TEST_F(ListeningPipeTest, LineOfANewClientHasItsPipeHandleInDecimal) {
    const PipeCreation creation;
    StartServer();
    const HANDLE pipe = creation.listening;
    const auto client = Connect();
    const auto value = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(pipe));
    EXPECT_EQ(output.CountOut("desktop client: 0x" + std::to_string(value) + "\n"), 1u)
        << output.Out();
}

TEST_F(ListeningPipeTest, PipeIsMadeWithTheAgreedParameters) {
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

TEST_F(ListeningPipeTest, LivePipeGrantsFullAccessToTheLocalLogonGroupAndLocalSystemAlone) {
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

TEST_F(ListeningPipeTest, ClientFasterThanConnectNamedPipeIsServed) {
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

TEST_F(ListeningPipeTest, ClientGoneBeforeConnectNamedPipeEndsAcceptingWithOneLine) {
    StartServer();
    std::unique_ptr<PipeClient> first;
    {
        const ConnectGap gap([&] { PipeClient(port, PipeClient::Reading::kNever).Close(); });
        first = Connect();
        EXPECT_EQ(gap.error, static_cast<DWORD>(ERROR_NO_DATA));
    }
    EXPECT_EQ(output.Error(), "Error caught in ListenOnPipe().\n");
    RoundTrip(*first);  // the connected client is served
    EXPECT_THROW(PipeClient second(port), std::system_error);
}

TEST_F(ListeningPipeTest, PipeNameTakenByAnotherProcessIsOneLineAndNoException) {
    const UniqueHandle other = OwnFile(::CreateNamedPipeW(kCameraPipeName, PIPE_ACCESS_DUPLEX,
                                                          PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr));
    ASSERT_TRUE(other);
    EXPECT_NO_THROW(StartServer());
    EXPECT_EQ(output.Error(), "Error caught in ListenOnPipe().\n");
}

TEST_F(ListeningPipeTest, FailedAcceptLeavesTheDispatcherAsAnException) {
    const PipeCreation creation;
    StartServer();
    // Behind the server's back. What makes the accept fail differs between systems.
    if (!::DisconnectNamedPipe(creation.listening))
        ::CloseHandle(creation.listening);
    EXPECT_TRUE(StartsWith(WindowsErrorOf([&] { port.DispatchOne(); }), "GetLastError() = 0x"));
    EXPECT_EQ(output.CountOut("pipe to desktop client"), 0u) << "a client was made of it";
}

TEST_F(ListeningPipeTest, AbortedAcceptIsFreedWithoutItsCallback) {
    const PipeCreation creation;
    StartServer();
    const auto client = Connect();
    ASSERT_TRUE(::CancelIoEx(creation.listening, nullptr));
    port.DispatchQueued();
    EXPECT_EQ(output.CountOut("GetQueuedCompletionStatus returned FALSE: 995\n"), 1u);
    EXPECT_EQ(output.Error(), "");
    RoundTrip(*client);
}

TEST_F(ListeningPipeTest, ClientThatLeavesBeforeItsFirstReadEndsTheRun) {
    StartServer();
    PipeClient(port, PipeClient::Reading::kNever).Close();
    EXPECT_TRUE(StartsWith(WindowsErrorOf([&] { port.DispatchQueued(); }),
                           "DoRead ReadFile failed.  GetLastError() = 0x6d ("));
    port.DispatchQueued();  // the marker of the call above
}

}  // namespace
