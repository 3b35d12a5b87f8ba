#include "service/service_main.h"

#include <array>
#include <cstddef>
#include <exception>
#include <memory>
#include <new>
#include <string_view>

#include "crash/win/crash.h"
#include "device/windows_exception.h"
#include "protocol/message.h"
#include "protocol/run_end.h"
#include "server/server.h"
#include "service/dispatcher.h"
#include "service/notification_window.h"

BYTE runningAsService = 1;

namespace {

constexpr DWORD kStartWaitHintMilliseconds = 3000;

/// The memory of the server. Not in the service thread's frame: the window thread, which is never
/// stopped, may use a server that has been destroyed, and must still find its port.
alignas(Server) std::byte serverMemory[sizeof(Server)];

struct ServerDestroyer {
    void operator()(Server* server) const noexcept { server->~Server(); }
};

SERVICE_STATUS_HANDLE serviceStatusHandle = nullptr;
SERVICE_STATUS serviceStatus{};  // filled in place by each report
DWORD checkPointCounter = 1;     // of the next pending state; never reset

void ReportStartPending() {
    serviceStatus.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    serviceStatus.dwCurrentState = SERVICE_START_PENDING;
    serviceStatus.dwControlsAccepted = 0;
    serviceStatus.dwWin32ExitCode = NO_ERROR;
    serviceStatus.dwServiceSpecificExitCode = 0;
    serviceStatus.dwCheckPoint = checkPointCounter++;
    serviceStatus.dwWaitHint = kStartWaitHintMilliseconds;
    ::SetServiceStatus(serviceStatusHandle, &serviceStatus);
}

void ReportStopPending() {
    serviceStatus.dwWaitHint = 0;
    serviceStatus.dwCheckPoint = checkPointCounter++;
    serviceStatus.dwCurrentState = SERVICE_STOP_PENDING;
    serviceStatus.dwControlsAccepted = SERVICE_ACCEPT_STOP;
    serviceStatus.dwWin32ExitCode = NO_ERROR;
    ::SetServiceStatus(serviceStatusHandle, &serviceStatus);
}

/// For RUNNING and STOPPED, which are not pending states.
void ReportState(DWORD state) {
    serviceStatus.dwCurrentState = state;
    serviceStatus.dwControlsAccepted = SERVICE_ACCEPT_STOP;
    serviceStatus.dwWin32ExitCode = NO_ERROR;
    serviceStatus.dwCheckPoint = 0;
    serviceStatus.dwWaitHint = 0;
    ::SetServiceStatus(serviceStatusHandle, &serviceStatus);
}

void RunService() {
    const auto crashServer = StartCrashServer();
    if (runningAsService) {
        serviceStatusHandle = ::RegisterServiceCtrlHandlerW(kServiceName, ServiceCtrlHandler);
        if (serviceStatusHandle == nullptr)
            throw WindowsException("RegisterServiceCtrlHandler() failed.");
        SetUpCrashHandler(L"4.0.4 (unknown)", L"Unknown");
        ReportStartPending();
    }

    // One thread takes the packets. The port is never closed: packets of operations that are left
    // behind may still come. It ends with the process.
    const HANDLE completionPort = ::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1);
    if (completionPort == nullptr)
        throw WindowsException("CreateIoCompletionPort() failed.");

    // The thread runs until the process ends: nothing waits for it or needs its handle.
    if (::CreateThread(nullptr, 0, NotificationWindowThread, nullptr, 0, nullptr) == nullptr)
        throw WindowsException("CreateThread() failed.");

    const std::unique_ptr<Server, ServerDestroyer> server(new (serverMemory)
                                                              Server(completionPort));
    theServer = server.get();

    if (runningAsService)
        ReportState(SERVICE_RUNNING);
    RunDispatcher(completionPort);
    if (runningAsService)
        ReportState(SERVICE_STOPPED);  // before anything is taken down
}

/// Ends the process on an exception, after everything has been unwound: nothing above the service
/// thread's frame would catch it. (`noexcept` alone needn't unwind.) It ends by a fault, because
/// that is what the crash handler sees whatever the C++ library does with exceptions. The dump gets
/// the text of the exception, for which nothing is allocated.
void RunServiceOrEndProcess() noexcept {
    std::array<char, kRunEndedTextLimit> text{};
    std::size_t length = 0;
    try {
        RunService();
        return;
    } catch (const std::exception& exception) {
        length = std::string_view(exception.what()).copy(text.data(), text.size());
    } catch (...) {
        // It has no text.
    }
    RenewCrashHandler();  // it may have registered with the crash server just destroyed
    ULONG_PTR parameters[kRunEndedParameters]{};
    parameters[kTextAddress] = reinterpret_cast<ULONG_PTR>(text.data());
    parameters[kTextLength] = length;
    ::RaiseException(kRunEnded, EXCEPTION_NONCONTINUABLE, kRunEndedParameters, parameters);
    // Under Wine 10 with its debugger on, the call returns. std::terminate() would be a second
    // crash with a second dump.
    ::TerminateProcess(::GetCurrentProcess(), kRunEnded);
}

}  // namespace

void WINAPI ServiceMain(DWORD /*argc*/, LPWSTR* /*argv*/) {
    if (runningAsService)
        RunServiceOrEndProcess();
    else
        RunService();
}

void WINAPI ServiceCtrlHandler(DWORD control) {
    if (control != SERVICE_CONTROL_STOP)
        return;
    ReportStopPending();
    theServer.load()->PostQuit();
}
