// A service that starts and stops slowly, for the tests of the client library. It has no pipe. It
// is RUNNING once the event Global\orvik-slow-service-runs is signalled, and STOPPED once
// Global\orvik-slow-service-stops is. The test creates them.

#include <string>

#include <windows.h>

#include "protocol/message.h"

namespace {

SERVICE_STATUS_HANDLE statusHandle;
HANDLE stopEvent;

void Report(DWORD state) {
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    const bool pending = state == SERVICE_START_PENDING || state == SERVICE_STOP_PENDING;
    status.dwWaitHint = pending ? 60'000 : 0;
    ::SetServiceStatus(statusHandle, &status);
}

DWORD WINAPI OnControl(DWORD control, DWORD, void*, void*) {
    if (control == SERVICE_CONTROL_STOP)
        ::SetEvent(stopEvent);
    return NO_ERROR;
}

/// Returns at once if there is no such event.
void WaitFor(const wchar_t* eventName) {
    const HANDLE event = ::OpenEventW(SYNCHRONIZE, FALSE, eventName);
    if (event != nullptr)
        ::WaitForSingleObject(event, 60'000);
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
    stopEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    statusHandle = ::RegisterServiceCtrlHandlerExW(kServiceName, OnControl, nullptr);
    Report(SERVICE_START_PENDING);
    WaitFor(LR"(Global\orvik-slow-service-runs)");
    Report(SERVICE_RUNNING);
    ::WaitForSingleObject(stopEvent, 60'000);
    Report(SERVICE_STOP_PENDING);
    WaitFor(LR"(Global\orvik-slow-service-stops)");
    Report(SERVICE_STOPPED);
}

}  // namespace

int main() {
    std::wstring name = kServiceName;
    const SERVICE_TABLE_ENTRYW table[] = {{name.data(), ServiceMain}, {nullptr, nullptr}};
    return ::StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
