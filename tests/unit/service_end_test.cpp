// The stop of the service, and the order in which its parts end.
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/io_operation.h"
#include "device/windows_exception.h"
#include "guarded_heap.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "protocol/message.h"
#include "service/dispatcher.h"
#include "service/notification_window.h"
#include "service/service_main.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::CreateIoCompletionPort) __imp_CreateIoCompletionPort;
extern decltype(&::CreateNamedPipeW) __imp_CreateNamedPipeW;
extern decltype(&::CreateThread) __imp_CreateThread;
extern decltype(&::PostQueuedCompletionStatus) __imp_PostQueuedCompletionStatus;
extern decltype(&::SetServiceStatus) __imp_SetServiceStatus;
}

namespace {

using Post = HookedImport<&__imp_PostQueuedCompletionStatus>;
using SetStatus = HookedImport<&__imp_SetServiceStatus>;

class StopControlTest : public InProcessService {
protected:
    void SetUp() override {
        InProcessService::SetUp();
        StartServer();
        theServer = server.get();
    }
    void TearDown() override {
        theServer = nullptr;
        calls.clear();
        calls.shrink_to_fit();
        InProcessService::TearDown();
    }

    /// Gives the stop control; the calls that the handler makes are in `calls`.
    void Stop(bool postFails) {
        const SetStatus setStatus([&](SERVICE_STATUS_HANDLE, SERVICE_STATUS* status) {
            calls += "state " + std::to_string(status->dwCurrentState) + "\n";
            return TRUE;
        });
        const Post post([&](HANDLE to, DWORD bytes, ULONG_PTR key, OVERLAPPED* state) -> BOOL {
            calls += "quit packet\n";
            EXPECT_EQ(to, port.Get());
            EXPECT_EQ(bytes, 0u);
            EXPECT_EQ(key, 0u);
            if (postFails) {
                ::SetLastError(ERROR_NOT_ENOUGH_QUOTA);
                return FALSE;
            }
            return Post::Original(to, bytes, key, state);
        });
        ServiceCtrlHandler(SERVICE_CONTROL_STOP);
    }

    std::string calls;
};

TEST_F(StopControlTest, StopPendingIsReportedBeforeTheQuitPacketIsPosted) {
    Stop(false);
    EXPECT_EQ(calls, "state 3\nquit packet\n");
    RunDispatcher(port.Get());  // ends with that packet
}

TEST_F(StopControlTest, QuitPacketThatCannotBePostedIsThrownOutOfTheHandlerAndFreed) {
    const std::size_t operations = port.Operations();
    try {
        Stop(true);
        ADD_FAILURE() << "no exception";
    } catch (const WindowsException& exception) {
        EXPECT_EQ(std::string(exception.what())
                      .find("PostQueuedCompletionStatus failed.  GetLastError() = 0x718 ("),
                  0u)
            << exception.what();
    }
    EXPECT_EQ(calls, "state 3\nquit packet\n") << "the report is not taken back";
    EXPECT_EQ(port.Operations(), operations);
    ExpectServing();
}

// RUNNING, from which on the control is accepted, is reported behind the server's start. So the
// handler does not ask whether there is a server.
TEST(StopControl, WithoutAServerIsAFault) {
    ORVIK_NEEDS_GUARDED_HEAP();
    ASSERT_EQ(theServer.load(), nullptr);
    EXPECT_EXIT(ServiceCtrlHandler(SERVICE_CONTROL_STOP),
                ::testing::ExitedWithCode(guarded_heap::kErrorExitCode), "unhandled exception");
}

/// Runs the service in the foreground, with a quit packet on its port, and says on standard error
/// which of its two pipes is closed when. Ends the process.
[[noreturn]] void SayWhatIsClosed() {
    runningAsService = 0;
    HANDLE cameraPipe = nullptr;
    HANDLE crashPipe = nullptr;
    using MakePipe = HookedImport<&__imp_CreateNamedPipeW>;
    const MakePipe makePipe([&](const wchar_t* name, DWORD open, DWORD mode, DWORD most, DWORD out,
                                DWORD in, DWORD wait, SECURITY_ATTRIBUTES* security) {
        const HANDLE pipe = MakePipe::Original(name, open, mode, most, out, in, wait, security);
        (std::wcscmp(name, kCameraPipeName) == 0 ? cameraPipe : crashPipe) = pipe;
        return pipe;
    });
    using MakePort = HookedImport<&__imp_CreateIoCompletionPort>;
    const MakePort makePort([](HANDLE file, HANDLE existing, ULONG_PTR key, DWORD threads) {
        const HANDLE port = MakePort::Original(file, existing, key, threads);
        if (file == INVALID_HANDLE_VALUE) {
            auto quit = std::make_unique<IoOperation>(IoCallback());
            quit->status = IoOperation::kQuit;
            ::PostQueuedCompletionStatus(port, 0, 0, &quit.release()->overlapped);
        }
        return port;
    });
    using MakeThread = HookedImport<&__imp_CreateThread>;
    const MakeThread makeThread([](SECURITY_ATTRIBUTES* security, SIZE_T stack,
                                   LPTHREAD_START_ROUTINE procedure, void* parameter, DWORD flags,
                                   DWORD* id) {
        if (procedure != NotificationWindowThread)
            return MakeThread::Original(security, stack, procedure, parameter, flags, id);
        return ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    });
    using Close = HookedImport<&__imp_CloseHandle>;
    const Close close([&](HANDLE handle) {
        if (handle == cameraPipe)
            std::fputs("server\n", stderr);
        else if (handle == crashPipe)
            std::fputs("crash server\n", stderr);
        return Close::Original(handle);
    });
    ServiceMain(0, nullptr);
    std::fflush(stderr);
    std::_Exit(0);
}

TEST(ServiceEnd, ServerIsDestroyedBeforeTheCrashServer) {
    EXPECT_EXIT(SayWhatIsClosed(), ::testing::ExitedWithCode(0), "^server\ncrash server\n$");
}

}  // namespace
