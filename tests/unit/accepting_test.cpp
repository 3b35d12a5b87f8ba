// Accepting clients: each step on the way to the next listening instance made to fail, and the
// order of that way.

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <aclapi.h>
#include <dbt.h>

#include "import_hook.h"
#include "in_process_service.h"

extern "C" {
extern decltype(&::AllocateAndInitializeSid) __imp_AllocateAndInitializeSid;
extern decltype(&::ConnectNamedPipe) __imp_ConnectNamedPipe;
extern decltype(&::CreateIoCompletionPort) __imp_CreateIoCompletionPort;
extern decltype(&::CreateNamedPipeW) __imp_CreateNamedPipeW;
extern decltype(&::FormatMessageA) __imp_FormatMessageA;
extern decltype(&::FreeSid) __imp_FreeSid;
extern decltype(&::InitializeSecurityDescriptor) __imp_InitializeSecurityDescriptor;
extern decltype(&::LocalFree) __imp_LocalFree;
extern decltype(&::PostQueuedCompletionStatus) __imp_PostQueuedCompletionStatus;
extern decltype(&::SetEntriesInAclW) __imp_SetEntriesInAclW;
extern decltype(&::SetSecurityDescriptorDacl) __imp_SetSecurityDescriptorDacl;
extern decltype(&::WriteFile) __imp_WriteFile;
}

namespace {

constexpr char kOneLine[] = "Error caught in ListenOnPipe().\n";

BOOL Fail(DWORD error) {
    ::SetLastError(error);
    return FALSE;
}

/// What the system has allocated for the pipe's security and the service has not yet freed.
class SecurityBlocks {
public:
    explicit SecurityBlocks(std::size_t failingSid, bool listFails)
        : makeSid([this, failingSid](SID_IDENTIFIER_AUTHORITY* authority, BYTE count, DWORD first,
                                     DWORD second, DWORD third, DWORD fourth, DWORD fifth,
                                     DWORD sixth, DWORD seventh, DWORD eighth, PSID* sid) -> BOOL {
              if (++sids == failingSid)
                  return Fail(ERROR_NOT_ENOUGH_MEMORY);
              if (!MakeSid::Original(authority, count, first, second, third, fourth, fifth, sixth,
                                     seventh, eighth, sid))
                  return FALSE;
              live.insert(*sid);
              return TRUE;
          }),
          freeSid([this](PSID sid) -> PVOID {
              EXPECT_EQ(live.erase(sid), 1u) << "a SID that is none, or is freed already";
              return FreeSid::Original(sid);
          }),
          makeList([this, listFails](ULONG count, EXPLICIT_ACCESS_W* entries, ACL* old,
                                     ACL** list) -> DWORD {
              if (listFails)
                  return ERROR_INVALID_PARAMETER;
              const DWORD error = MakeList::Original(count, entries, old, list);
              live.insert(*list);
              return error;
          }),
          freeList([this](HLOCAL block) {
              live.erase(block);  // other blocks are freed by it too
              return FreeList::Original(block);
          }) {}

    std::set<void*> live;
    std::size_t sids = 0;

private:
    using MakeSid = HookedImport<&__imp_AllocateAndInitializeSid>;
    using FreeSid = HookedImport<&__imp_FreeSid>;
    using MakeList = HookedImport<&__imp_SetEntriesInAclW>;
    using FreeList = HookedImport<&__imp_LocalFree>;
    const MakeSid makeSid;
    const FreeSid freeSid;
    const MakeList makeList;
    const FreeList freeList;
};

/// One step that fails.
struct Step {
    const char* name;
    std::function<std::shared_ptr<void>(const TestPort&)> hook;
    std::size_t failingSid = 0;  // counted from 1
    bool listFails = false;
    std::size_t sids = 2;  // that are asked for
};

template <auto* entry, typename Replacement>
std::shared_ptr<void> Hook(Replacement replacement) {
    return std::make_shared<HookedImport<entry>>(replacement);
}

std::shared_ptr<void> HookConnect(DWORD error) {
    return Hook<&__imp_ConnectNamedPipe>([error](HANDLE, OVERLAPPED*) { return Fail(error); });
}

const Step kSteps[] = {
    {"FirstSid", [](const TestPort&) { return nullptr; }, 1, false, 1},
    {"SecondSid", [](const TestPort&) { return nullptr; }, 2},
    {"AccessList", [](const TestPort&) { return nullptr; }, 0, true},
    {"SecurityDescriptor",
     [](const TestPort&) {
         using Initialise = HookedImport<&__imp_InitializeSecurityDescriptor>;
         // It is initialised all the same, or the next step would fail in its place.
         return Hook<&__imp_InitializeSecurityDescriptor>([](void* descriptor, DWORD revision) {
             Initialise::Original(descriptor, revision);
             return Fail(ERROR_UNKNOWN_REVISION);
         });
     }},
    {"AccessListOfTheDescriptor",
     [](const TestPort&) {
         return Hook<&__imp_SetSecurityDescriptorDacl>(
             [](void*, BOOL, ACL*, BOOL) { return Fail(ERROR_INVALID_ACL); });
     }},
    {"PipeInstance",
     [](const TestPort&) {
         return Hook<&__imp_CreateNamedPipeW>(
             [](const wchar_t*, DWORD, DWORD, DWORD, DWORD, DWORD, DWORD, SECURITY_ATTRIBUTES*) {
                 ::SetLastError(ERROR_PIPE_BUSY);
                 return INVALID_HANDLE_VALUE;
             });
     }},
    {"AssociationWithThePort",
     [](const TestPort&) {
         return Hook<&__imp_CreateIoCompletionPort>([](HANDLE, HANDLE, ULONG_PTR, DWORD) -> HANDLE {
             ::SetLastError(ERROR_INVALID_PARAMETER);
             return nullptr;
         });
     }},
    {"ConnectWithAccessDenied", [](const TestPort&) { return HookConnect(ERROR_ACCESS_DENIED); }},
    {"ConnectWithPipeListening", [](const TestPort&) { return HookConnect(ERROR_PIPE_LISTENING); }},
    {"ConnectWithNoData", [](const TestPort&) { return HookConnect(ERROR_NO_DATA); }},
    {"PacketOfAClientThatWasFaster",
     [](const TestPort& port) {
         struct Hooks {
             explicit Hooks(HANDLE portHandle)
                 : connect([](HANDLE, OVERLAPPED*) { return Fail(ERROR_PIPE_CONNECTED); }),
                   post([portHandle](HANDLE to, DWORD bytes, ULONG_PTR key, OVERLAPPED* state) {
                       // Those of the test itself have the key 0. The error is the one with which
                       // a pending call returns: the post's failure must not be taken for that.
                       if (to == portHandle && key != 0)
                           return Fail(ERROR_IO_PENDING);
                       return Post::Original(to, bytes, key, state);
                   }) {}
             using Post = HookedImport<&__imp_PostQueuedCompletionStatus>;
             const HookedImport<&__imp_ConnectNamedPipe> connect;
             const Post post;
         };
         return std::make_shared<Hooks>(port.Get());
     }},
};

class AcceptingTest : public InProcessService {};

class FailingAcceptTest : public AcceptingTest, public ::testing::WithParamInterface<Step> {
protected:
    /// No client can get in, and nothing else has suffered.
    void ExpectAcceptingHasEnded(std::size_t connections) {
        EXPECT_EQ(output.Error(), kOneLine);
        try {
            const PipeClient late(port);  // where an instance is left, it can be opened
            port.DispatchQueued();
        } catch (const std::system_error&) {
        }
        port.DispatchQueued();
        EXPECT_EQ(output.CountOut("ServerClient connected."), connections);
    }

    /// A new server accepts, so the old one has left no instance that nothing serves.
    void ExpectNewServerServes() {
        StopServer();
        StartServer();
        ExpectServing();
    }
};

INSTANTIATE_TEST_SUITE_P(Steps, FailingAcceptTest, ::testing::ValuesIn(kSteps),
                         [](const auto& step) { return std::string(step.param.name); });

TEST_P(FailingAcceptTest, AtTheStartIsOneLineAndTheServerRunsWithoutClients) {
    {
        const SecurityBlocks blocks(GetParam().failingSid, GetParam().listFails);
        const auto failing = GetParam().hook(port);
        EXPECT_NO_THROW(StartServer());
        EXPECT_EQ(blocks.sids, GetParam().sids);
        EXPECT_EQ(blocks.live.size(), 0u) << "SIDs or access lists are left";
    }
    ExpectAcceptingHasEnded(0);
    // Cameras are recorded as ever.
    InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(Plug()));
    EXPECT_TRUE(server->FindDevice(kFirstCamera));
    ExpectNewServerServes();
}

TEST_P(FailingAcceptTest, BehindAClientIsOneLineAndThatClientIsServed) {
    Plug();
    StartServer();
    std::unique_ptr<PipeClient> client;
    output.Clear();
    {
        client = std::make_unique<PipeClient>(port);
        const SecurityBlocks blocks(GetParam().failingSid, GetParam().listFails);
        const auto failing = GetParam().hook(port);
        port.DispatchUntil("the client's connection",
                           [&] { return output.CountOut("ServerClient connected.") == 1; });
        EXPECT_EQ(blocks.sids, GetParam().sids);
        EXPECT_EQ(blocks.live.size(), 0u) << "SIDs or access lists are left";
    }
    ExpectAcceptingHasEnded(1);
    const Message announced = WaitForMessage(*client, 1);
    EXPECT_EQ(announced.header.messageType, kCameraAttached);
    EXPECT_EQ(announced.header.cameraId, kFirstCamera);
    client->Write(RequestBytes(kTransferIn, 5, kFirstCamera, Read6(0, 1)));
    EXPECT_EQ(WaitForMessage(*client, 2).header.messageType, kTransferSucceeded);
    Leave(client);
    ExpectNewServerServes();
}

// SetEntriesInAclW returns its error and does not set the last error.
TEST_F(AcceptingTest, ExceptionForTheAccessListHasTheErrorThatTheCallReturned) {
    std::vector<DWORD> codes;  // for which the system's message is asked
    {
        const SecurityBlocks blocks(0, true);
        using Format = HookedImport<&__imp_FormatMessageA>;
        const Format format([&](DWORD flags, const void* source, DWORD code, DWORD language,
                                char* text, DWORD size, va_list* arguments) {
            codes.push_back(code);
            return Format::Original(flags, source, code, language, text, size, arguments);
        });
        StartServer();
    }
    EXPECT_EQ(codes, std::vector<DWORD>{ERROR_INVALID_PARAMETER});
}

TEST_F(AcceptingTest, SecurityOfEachInstanceIsFreedOnceItIsMade) {
    const SecurityBlocks blocks(0, false);
    StartServer();
    EXPECT_EQ(blocks.sids, 2u);
    EXPECT_EQ(blocks.live.size(), 0u);
    const auto client = Connect();
    EXPECT_EQ(blocks.sids, 4u) << "it is made anew for each instance";
    EXPECT_EQ(blocks.live.size(), 0u);
}

TEST_F(AcceptingTest, CamerasAreAnnouncedOnceTheNextInstanceListens) {
    Plug();
    Plug();
    StartServer();
    std::vector<std::string> calls;
    {
        using Create = HookedImport<&__imp_CreateNamedPipeW>;
        const Create create([&](const wchar_t* name, DWORD open, DWORD mode, DWORD most, DWORD out,
                                DWORD in, DWORD wait, SECURITY_ATTRIBUTES* security) {
            calls.emplace_back("instance");
            return Create::Original(name, open, mode, most, out, in, wait, security);
        });
        using Listen = HookedImport<&__imp_ConnectNamedPipe>;
        const Listen listen([&](HANDLE pipe, OVERLAPPED* state) {
            calls.emplace_back("listens");
            return Listen::Original(pipe, state);
        });
        using Write = HookedImport<&__imp_WriteFile>;
        const Write write(
            [&](HANDLE file, const void* from, DWORD size, DWORD* done, OVERLAPPED* state) {
                calls.emplace_back("announces");
                return Write::Original(file, from, size, done, state);
            });
        PipeClient client(port);
        WaitForMessage(client, 2);
        RoundTrip(client);
        calls.resize(4);  // without the answer of the round trip
    }
    EXPECT_EQ(calls, (std::vector<std::string>{"instance", "listens", "announces", "announces"}));
    calls = std::vector<std::string>();
    WaitForShutdowns(1);
}

}  // namespace
