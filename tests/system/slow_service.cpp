// A service that takes its time to start, for the tests of the client library. It has no pipe. It
// is RUNNING once the event Global\orvik-slow-service-runs is signalled, which the test makes
// before.

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
    status.dwWaitHint = state == SERVICE_START_PENDING ? 60'000 : 0;
    ::SetServiceStatus(statusHandle, &status);
}

DWORD WINAPI OnControl(DWORD control, DWORD, void*, void*) {
    if (control == SERVICE_CONTROL_STOP)
        ::SetEvent(stopEvent);
    return NO_ERROR;
}

void WINAPI ServiceMain(DWORD, wchar_t**) {
    stopEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    statusHandle = ::RegisterServiceCtrlHandlerExW(kServiceName, OnControl, nullptr);
    Report(SERVICE_START_PENDING);
    const HANDLE runs = ::OpenEventW(SYNCHRONIZE, FALSE, LR"(Global\orvik-slow-service-runs)");
    if (runs != nullptr)
        ::WaitForSingleObject(runs, 60'000);
    Report(SERVICE_RUNNING);
    ::WaitForSingleObject(stopEvent, 60'000);
    Report(SERVICE_STOPPED);
}

}  // namespace

int main() {
    std::wstring name = kServiceName;
    const SERVICE_TABLE_ENTRYW table[] = {{name.data(), ServiceMain}, {nullptr, nullptr}};
    return ::StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
