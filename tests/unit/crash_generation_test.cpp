// Breakpad's crash server and its writer of dumps, as cmake/breakpad patches them: nothing is
// closed twice, and nothing is used that has been freed.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <client/windows/common/ipc_protocol.h>
#include <client/windows/crash_generation/client_info.h>
#include <client/windows/crash_generation/crash_generation_server.h>
#include <client/windows/crash_generation/minidump_generator.h>

#include "guarded_heap.h"
#include "import_hook.h"
#include "temporary_profile.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::RegisterWaitForSingleObject) __imp_RegisterWaitForSingleObject;
}

namespace {

using google_breakpad::ClientInfo;
using google_breakpad::CrashGenerationServer;
using google_breakpad::MinidumpGenerator;
using google_breakpad::ProtocolMessage;

constexpr DWORD kDeadline = 30'000;  // milliseconds

/// Where no process has memory.
void* UnreadableAddress() {
    return reinterpret_cast<void*>(0x1000);
}

// --- the files of a dump ---

class DumpFiles : public testing::TestWithParam<MINIDUMP_TYPE> {
protected:
    /// Writes a dump of this process, with pointers such as a client of the server sends. Returns
    /// whether it has been written. The files are closed afterwards.
    bool Write(EXCEPTION_POINTERS* exception, MDRawAssertionInfo* assertion) {
        MinidumpGenerator generator(profile.Folder(), ::GetCurrentProcess(),
                                    ::GetCurrentProcessId(), ::GetCurrentThreadId(),
                                    ::GetCurrentThreadId(), exception, assertion, GetParam(), true);
        std::wstring path;
        EXPECT_TRUE(generator.GenerateDumpFile(&path));
        EXPECT_EQ(generator.GenerateFullDumpFile(&path), GetParam() == MiniDumpWithFullMemory);
        return generator.WriteMinidump();
    }

    using CloseHandleHook = HookedImport<&__imp_CloseHandle>;

    const TemporaryProfile profile;
    int failedCloses = 0;
    const CloseHandleHook closeHandle{[this](HANDLE handle) {
        const BOOL closed = CloseHandleHook::Original(handle);
        failedCloses += closed ? 0 : 1;
        return closed;
    }};
};
INSTANTIATE_TEST_SUITE_P(Types, DumpFiles, testing::Values(MiniDumpNormal, MiniDumpWithFullMemory),
                         [](const auto& type) {
                             return type.param == MiniDumpNormal ? "Normal" : "WithFullMemory";
                         });

TEST_P(DumpFiles, AreClosedOnceWhenTheClientsAssertionCannotBeRead) {
    EXPECT_FALSE(Write(nullptr, static_cast<MDRawAssertionInfo*>(UnreadableAddress())));
    EXPECT_EQ(failedCloses, 0);
}

TEST_P(DumpFiles, AreClosedOnceWhenTheClientsExceptionCannotBeRead) {
    MDRawAssertionInfo assertion{};
    EXPECT_FALSE(Write(static_cast<EXCEPTION_POINTERS*>(UnreadableAddress()), &assertion));
    EXPECT_EQ(failedCloses, 0);
}

// --- registering ---

struct WaitUnregisterer {
    using pointer = HANDLE;
    void operator()(HANDLE wait) const noexcept { ::UnregisterWaitEx(wait, INVALID_HANDLE_VALUE); }
};
using UniqueWait = std::unique_ptr<void, WaitUnregisterer>;

/// Waits of the thread pool that end with this object alone.
///
/// Wine has one thread for each 63 waits, and runs the crash server's steps in it. With these
/// another thread sees what the server waits for next.
class OtherWaits {
public:
    OtherWaits() {
        constexpr std::size_t kCount = 63;
        while (waits.size() < kCount) {
            HANDLE wait = nullptr;
            EXPECT_TRUE(::RegisterWaitForSingleObject(
                &wait, event.get(), [](void*, BOOLEAN) {}, nullptr, INFINITE, WT_EXECUTEDEFAULT));
            waits.emplace_back(wait);
        }
    }

private:
    UniqueHandle event{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::vector<UniqueWait> waits;
};

/// A process that never runs.
class SuspendedProcess {
public:
    SuspendedProcess() {
        std::wstring path(MAX_PATH, L'\0');
        ::GetModuleFileNameW(nullptr, path.data(), MAX_PATH);
        STARTUPINFOW startup{};
        startup.cb = sizeof(startup);
        PROCESS_INFORMATION information{};
        EXPECT_TRUE(::CreateProcessW(path.c_str(), nullptr, nullptr, nullptr, FALSE,
                                     CREATE_SUSPENDED | DETACHED_PROCESS, nullptr, nullptr,
                                     &startup, &information));
        process.reset(information.hProcess);
        ::CloseHandle(information.hThread);
        id = information.dwProcessId;
    }
    ~SuspendedProcess() { End(); }

    SuspendedProcess(const SuspendedProcess&) = delete;
    SuspendedProcess& operator=(const SuspendedProcess&) = delete;

    DWORD Id() const noexcept { return id; }
    void End() const { ::TerminateProcess(process.get(), 0); }

private:
    UniqueHandle process;
    DWORD id = 0;
};

/// Asks the server to register the process, and returns once it has answered.
void Register(const wchar_t* pipeName, DWORD processId) {
    const UniqueHandle pipe =
        OwnFile(::CreateFileW(pipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                              SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    ASSERT_TRUE(pipe);
    DWORD threadId = 0;
    EXCEPTION_POINTERS* exception = nullptr;
    MDRawAssertionInfo assertion{};
    const ProtocolMessage request(google_breakpad::MESSAGE_TAG_REGISTRATION_REQUEST, processId,
                                  MiniDumpNormal, &threadId, &exception, &assertion, {nullptr, 0},
                                  nullptr, nullptr, nullptr);
    DWORD count = 0;
    EXPECT_TRUE(::WriteFile(pipe.get(), &request, sizeof(request), &count, nullptr));
    ProtocolMessage answer;
    EXPECT_TRUE(::ReadFile(pipe.get(), &answer, sizeof(answer), &count, nullptr));
    EXPECT_EQ(answer.tag, google_breakpad::MESSAGE_TAG_REGISTRATION_RESPONSE);
}

TEST(CrashServer, ForgetsAClientOnceThatEndsWhileItIsRegistered) {
    ORVIK_NEEDS_GUARDED_HEAP();
    constexpr wchar_t kPipe[] = LR"(\\.\pipe\orvik-test-crash-generation)";
    const std::size_t clientsBefore = guarded_heap::LiveBlocks(sizeof(ClientInfo));
    const UniqueHandle forgetting(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const UniqueHandle registered(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const SuspendedProcess client;

    const std::wstring folder = L".";
    auto server = std::make_unique<CrashGenerationServer>(
        kPipe, nullptr, nullptr, nullptr, nullptr, nullptr,
        [](void* event, const ClientInfo*) { ::SetEvent(event); }, forgetting.get(), nullptr,
        nullptr, true, &folder);
    ASSERT_TRUE(server->Start());
    const OtherWaits otherWaits;
    using Hook = HookedImport<&__imp_RegisterWaitForSingleObject>;
    const Hook registerWait([&](HANDLE* wait, HANDLE object, WAITORTIMERCALLBACK callback,
                                void* context, ULONG time, ULONG flags) {
        if (::GetProcessId(object) != client.Id())
            return Hook::Original(wait, object, callback, context, time, flags);
        // The client ends just before the server waits for its end. The server goes on once
        // another thread has deleted what it knows of the client, or, as it should, after a moment
        // in which that thread has waited for the server.
        client.End();
        const BOOL result = Hook::Original(wait, object, callback, context, time, flags);
        EXPECT_EQ(::WaitForSingleObject(forgetting.get(), kDeadline), WAIT_OBJECT_0);
        constexpr int kLooks = 40;
        for (int look = 0; look < kLooks; ++look) {
            if (guarded_heap::LiveBlocks(sizeof(ClientInfo)) == clientsBefore)
                break;
            ::Sleep(5);
        }
        ::SetEvent(registered.get());
        return result;
    });
    Register(kPipe, client.Id());
    ASSERT_EQ(::WaitForSingleObject(registered.get(), kDeadline), WAIT_OBJECT_0);
    server.reset();
    EXPECT_EQ(guarded_heap::LiveBlocks(sizeof(ClientInfo)), clientsBefore);
}

}  // namespace
