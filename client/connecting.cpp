#include "client/connecting.h"

#include <algorithm>
#include <utility>

#include <windows.h>

#include "protocol/message.h"
#include "windows/unique_service_handle.h"

namespace orvik {

namespace {

/// Where nothing can be waited for.
constexpr DWORD kMillisecondsBetweenLooks = 10;

/// Throws the error of the call that has just failed.
[[noreturn]] void Fail(const char* text) {
    const DWORD code = ::GetLastError();
    throw Error(code == ERROR_ACCESS_DENIED ? ErrorKind::kAccessDenied : ErrorKind::kSystem, text,
                code);
}

/// What the service control manager says of the service. Asks for no right that an ordinary user
/// lacks. Throws Error kAccessDenied and kSystem.
struct ServiceState {
    ServiceState() {
        const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
        if (!manager)
            Fail("cannot ask the service control manager");
        const UniqueServiceHandle service(
            ::OpenServiceW(manager.get(), kServiceName, SERVICE_QUERY_STATUS));
        if (!service && ::GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST)
            return;
        SERVICE_STATUS_PROCESS status{};
        DWORD needed = 0;
        if (!service ||
            !::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                    reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
            Fail("cannot ask the service control manager for the service");
        installed = true;
        state = status.dwCurrentState;
        if (state != SERVICE_STOPPED)
            processId = status.dwProcessId;
    }

    bool installed = false;
    DWORD state = SERVICE_STOPPED;
    DWORD processId = 0;  // 0: none
};

/// Empty if it fails; then GetLastError() says why.
UniqueHandle OpenPipe(const std::wstring& name) noexcept {
    // The service may learn who its client is, but not act in the client's name.
    return OwnFile(::CreateFileW(
        name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
        FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
}

/// Waits until an instance may be free. Whatever comes of it, the next attempt tells: another
/// client may be faster, the service may end.
bool WaitForInstance(const std::wstring& name, const Deadline& deadline) noexcept {
    // 0 would mean the pipe's own default.
    return ::WaitNamedPipeW(name.c_str(), std::max<DWORD>(deadline.Left(), 1)) != FALSE;
}

/// There is no pipe: throws unless it is to be expected, then it waits a little.
void WaitForPipe(const ConnectOptions& options, const Deadline& deadline, DWORD code) {
    if (!options.checkServer)
        throw Error(ErrorKind::kStopped, "the service is not running, its pipe is not there", code);
    const ServiceState service;
    if (!service.installed)
        throw Error(ErrorKind::kNotInstalled, "the service OrvikService is not installed",
                    ERROR_SERVICE_DOES_NOT_EXIST);
    if (service.state == SERVICE_STOPPED || service.state == SERVICE_STOP_PENDING)
        throw Error(ErrorKind::kStopped,
                    service.state == SERVICE_STOPPED ? "the service is not running"
                                                     : "the service is stopping",
                    ERROR_SERVICE_NOT_ACTIVE);
    const bool starting = service.state == SERVICE_START_PENDING;
    if (deadline.Passed())
        throw Error(starting ? ErrorKind::kStarting : ErrorKind::kBusy,
                    starting ? "the service is still starting"
                             : "the service is running, but its pipe is not there",
                    code);
    // Nothing tells when a pipe is made. Of a service's state NotifyServiceStatusChange tells, but
    // in an alertable wait, which would call what the caller has queued to its thread as well.
    ::Sleep(std::min(kMillisecondsBetweenLooks, deadline.Left()));
}

/// Throws kWrongServer, and what ServiceState throws.
void RequireService(HANDLE pipe) {
    ULONG server = 0;
    if (!::GetNamedPipeServerProcessId(pipe, &server))
        Fail("cannot ask which process serves the camera pipe");
    const ServiceState service;
    if (service.processId != 0 && server == service.processId)
        return;
    std::string text =
        "process " + std::to_string(server) + " serves the camera pipe, but the service ";
    if (!service.installed)
        text += "is not installed";
    else if (service.processId == 0)
        text += "is not running";
    else
        text += "is process " + std::to_string(service.processId);
    throw Error(ErrorKind::kWrongServer, text);
}

/// Throws as RequireService() does. False if the server has gone meanwhile.
bool IsServedByService(HANDLE pipe, const std::wstring& name) {
    try {
        RequireService(pipe);
        return true;
    } catch (const Error&) {
        // It may be a service all the same, whose run would end if this left at once.
        const OneMoreConnection other(name, Deadline(kLeaveTimeout));
        // A service that has reported its end serves its pipe a moment longer.
        if (::PeekNamedPipe(pipe, nullptr, 0, nullptr, nullptr, nullptr))
            throw;
        return false;
    }
}

}  // namespace

UniqueHandle ConnectToService(const ConnectOptions& options, const Deadline& deadline) {
    while (true) {
        UniqueHandle pipe = OpenPipe(options.pipe);
        DWORD code = ::GetLastError();
        if (pipe) {
            if (!options.checkServer || IsServedByService(pipe.get(), options.pipe))
                return pipe;
            code = ERROR_BROKEN_PIPE;
        }
        switch (code) {
            case ERROR_PIPE_BUSY:
                if (deadline.Passed())
                    throw Error(ErrorKind::kBusy, "the service is busy and took no new connection",
                                code);
                WaitForInstance(options.pipe, deadline);
                break;
            case ERROR_FILE_NOT_FOUND:
            case ERROR_BROKEN_PIPE:
                WaitForPipe(options, deadline, code);
                break;
            case ERROR_ACCESS_DENIED:
                throw Error(ErrorKind::kAccessDenied, "this user may not connect to the service",
                            code);
            default:
                throw Error(ErrorKind::kSystem, "cannot connect to the service", code);
        }
    }
}

OneMoreConnection::OneMoreConnection(const std::wstring& name, const Deadline& deadline) {
    while (!(pipe = OpenPipe(name))) {
        if (::GetLastError() != ERROR_PIPE_BUSY || deadline.Passed())
            return;
        WaitForInstance(name, deadline);
    }
    nextIsWaiting = WaitForInstance(name, deadline);
}

}  // namespace orvik
