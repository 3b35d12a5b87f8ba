#include "client/connecting.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <utility>
#include <vector>

#include <windows.h>

#include "client/clean_disconnect.h"
#include "client/pipe_instance.h"
#include "orvik/client.h"
#include "protocol/message.h"
#include "windows/unique_service_handle.h"

namespace orvik {

namespace {

/// Between two attempts to open a pipe that does not exist yet.
constexpr DWORD kMillisecondsBetweenAttempts = 10;

/// How often a wait that cannot be cancelled looks for a cancellation.
constexpr std::chrono::milliseconds kCancelInterval{50};

[[noreturn]] void ThrowError(const char* text, DWORD code) {
    throw Error(code == ERROR_ACCESS_DENIED ? ErrorKind::kAccessDenied : ErrorKind::kSystem, text,
                code);
}

/// Whether the server has not closed its end yet. Discards what the server has sent, because until
/// all of it has been read the system does not say that the server has closed its end. A server
/// that sends more than the pipe's buffer holds is there.
bool IsOpen(HANDLE pipe) noexcept {
    constexpr DWORD kPipeBuffer = 65'536;
    DWORD available = 0;
    for (DWORD discarded = 0; discarded <= kPipeBuffer; discarded += available) {
        if (!::PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr))
            return false;
        if (available == 0)
            return true;
        std::array<std::byte, 4096> data;
        available = std::min<DWORD>(available, data.size());
        OVERLAPPED reading{};  // no other operation of this pipe is in progress
        if (!::ReadFile(pipe, data.data(), available, nullptr, &reading) &&
            ::GetLastError() != ERROR_IO_PENDING)
            return false;
        DWORD count = 0;
        ::GetOverlappedResult(pipe, &reading, &count, TRUE);
    }
    return true;
}

/// What the service control manager knows about the service. Every local user may ask; the network
/// logon of an ordinary user may not. Throws Error kAccessDenied and kSystem.
struct ServiceState {
    ServiceState() {
        const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
        if (!manager)
            ThrowError("cannot connect to the service control manager", ::GetLastError());
        const UniqueServiceHandle service(
            ::OpenServiceW(manager.get(), kServiceName, SERVICE_QUERY_STATUS));
        if (!service && ::GetLastError() == ERROR_SERVICE_DOES_NOT_EXIST)
            return;
        SERVICE_STATUS_PROCESS status{};
        DWORD needed = 0;
        if (!service ||
            !::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                    reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
            ThrowError("cannot query the state of the service OrvikService", ::GetLastError());
        installed = true;
        state = status.dwCurrentState;
        if (state != SERVICE_STOPPED)
            processId = status.dwProcessId;
    }

    bool installed = false;
    DWORD state = SERVICE_STOPPED;
    DWORD processId = 0;  // 0: none
};

/// Called when the pipe does not exist: waits a little if it may exist soon, else throws.
void WaitForPipe(bool checkServer, const Deadline& deadline, DWORD code) {
    if (!checkServer)
        throw Error(ErrorKind::kStopped, "the service is not running: its pipe does not exist",
                    code);
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
                             : "the service is running, but its pipe does not exist",
                    code);
    // No event reports that a pipe is created. NotifyServiceStatusChange reports a service's state,
    // but needs an alertable wait, which would also run what the caller has queued to its thread.
    ::Sleep(std::min(kMillisecondsBetweenAttempts, deadline.Left()));
}

/// Why the service, in its state, cannot be the server of the pipe.
Error WrongServer(DWORD server, const ServiceState& service) {
    std::string text =
        "process " + std::to_string(server) + " serves the camera pipe, but the service ";
    if (!service.installed)
        text += "is not installed";
    else if (service.processId == 0)
        text += "is not running";
    else
        text += "is process " + std::to_string(service.processId);
    return {ErrorKind::kWrongServer, text};
}

/// True: the service serves this instance of the pipe. False: another process does, and the service
/// may serve the next instance; or the server has closed this one.
/// Throws kWrongServer when the service runs in no process or the deadline has passed, and what
/// ServiceState throws. The server may be the service all the same, for example in a console, so
/// the pipe can be closed without harm to it then.
bool IsServedByService(HANDLE pipe, const std::wstring& pipeName, const Deadline& deadline) {
    const DWORD server = ServerProcess(pipe);
    const DWORD code = ::GetLastError();
    try {
        if (server == 0)
            ThrowError("cannot find out which process serves the camera pipe", code);
        const ServiceState service;
        if (server == service.processId)
            return true;
        if (service.processId != 0 && !deadline.Passed())
            return false;
        throw WrongServer(server, service);
    } catch (const Error&) {
        const SecondConnection second(pipeName, server, Deadline(kDisconnectTimeout));
        // A service that has reported SERVICE_STOPPED serves its pipe a moment longer.
        if (IsOpen(pipe))
            throw;
        return false;
    }
}

}  // namespace

UniqueHandle ConnectToService(const std::wstring& pipeName, bool checkServer,
                              const Deadline& deadline,
                              const std::function<void()>& requireNotCancelled) {
    // Instances of other servers. They are held, so that the next attempt opens another one.
    std::vector<UniqueHandle> others;
    while (true) {
        requireNotCancelled();
        UniqueHandle pipe = OpenPipeInstance(pipeName);
        DWORD code = ::GetLastError();
        if (pipe) {
            if (!checkServer || IsServedByService(pipe.get(), pipeName, deadline))
                return pipe;
            if (IsOpen(pipe.get())) {
                others.push_back(std::move(pipe));
                continue;
            }
            code = ERROR_BROKEN_PIPE;
        }
        switch (code) {
            case ERROR_PIPE_BUSY:
                if (deadline.Passed()) {
                    if (!others.empty())
                        throw WrongServer(ServerProcess(others.back().get()), ServiceState());
                    throw Error(ErrorKind::kBusy,
                                "no instance of the service's pipe was free in time; probably the "
                                "service is busy with a command",
                                code);
                }
                // This wait cannot be cancelled.
                WaitForPipeInstance(pipeName, std::min(deadline, Deadline(kCancelInterval)));
                break;
            case ERROR_FILE_NOT_FOUND:
            case ERROR_BROKEN_PIPE:
                WaitForPipe(checkServer, deadline, code);
                break;
            case ERROR_ACCESS_DENIED:
                throw Error(ErrorKind::kAccessDenied, "this user may not open the service's pipe",
                            code);
            default:
                throw Error(ErrorKind::kSystem, "cannot open the service's pipe", code);
        }
    }
}

}  // namespace orvik
