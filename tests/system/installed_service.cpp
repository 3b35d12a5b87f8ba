#include "installed_service.h"

#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

#include "program.h"
#include "windows/unique_handle.h"
#include "windows/unique_service_handle.h"

namespace system_test {

namespace {

/// What the tests call their service, so that they never touch one that is installed for use.
constexpr wchar_t kDisplayName[] = L"OrvikService (system tests)";

[[noreturn]] void Fail(DWORD error, const std::string& what) {
    throw std::system_error(static_cast<int>(error), std::system_category(), what);
}

[[noreturn]] void FailLast(const std::string& what) {
    Fail(::GetLastError(), what);
}

UniqueServiceHandle OpenManager() {
    UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
    if (!manager)
        FailLast("OpenSCManagerW (are the tests run by an administrator?)");
    return manager;
}

/// Empty if there is no such service.
UniqueServiceHandle FindService(const UniqueServiceHandle& manager) {
    UniqueServiceHandle service(::OpenServiceW(manager.get(), kServiceName, SERVICE_ALL_ACCESS));
    if (!service && ::GetLastError() != ERROR_SERVICE_DOES_NOT_EXIST)
        FailLast("OpenServiceW");
    return service;
}

UniqueServiceHandle OpenInstalledService() {
    UniqueServiceHandle service = FindService(OpenManager());
    if (!service)
        FailLast("OpenServiceW");
    return service;
}

SERVICE_STATUS_PROCESS StatusOf(const UniqueServiceHandle& service) {
    SERVICE_STATUS_PROCESS status{};
    DWORD needed = 0;
    if (!::QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                                reinterpret_cast<BYTE*>(&status), sizeof(status), &needed))
        FailLast("QueryServiceStatusEx");
    return status;
}

/// Ends the service, with a stop control if it takes one, and removes it.
void RemoveService(UniqueServiceHandle service) {
    const DWORD processId = StatusOf(service).dwProcessId;
    if (processId != 0) {
        // Neither call has to succeed: the process may just have ended.
        const UniqueHandle process(
            ::OpenProcess(SYNCHRONIZE | PROCESS_TERMINATE, FALSE, processId));
        SERVICE_STATUS status{};
        const bool stopping = ::ControlService(service.get(), SERVICE_CONTROL_STOP, &status);
        constexpr DWORD kStopMilliseconds = 10'000;
        if (process &&
            (!stopping || ::WaitForSingleObject(process.get(), kStopMilliseconds) != WAIT_OBJECT_0))
            TerminateAndWait(process.get());
    }
    if (!::DeleteService(service.get()) && ::GetLastError() != ERROR_SERVICE_MARKED_FOR_DELETE)
        FailLast("DeleteService");
    service.reset();
    // It goes when the manager itself has let go of it, and nothing tells when.
    const UniqueServiceHandle manager = OpenManager();
    for (const Deadline deadline; FindService(manager); ::Sleep(kMillisecondsBetweenLooks)) {
        if (deadline.Over())
            throw std::runtime_error("the service that was removed does not go");
    }
}

}  // namespace

struct StateNotification::Registration {
    UniqueServiceHandle service = OpenInstalledService();
    SERVICE_NOTIFYW record{};  // the system's, until the handle is closed or it has called back
    bool notified = false;
};

StateNotification::StateNotification(DWORD notifyMask)
    : registration(std::make_unique<Registration>()) {
    SERVICE_NOTIFYW& record = registration->record;
    record.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
    record.pfnNotifyCallback = [](void* parameter) {
        const auto* const called = static_cast<const SERVICE_NOTIFYW*>(parameter);
        static_cast<Registration*>(called->pContext)->notified = true;
    };
    record.pContext = registration.get();
    const DWORD error =
        ::NotifyServiceStatusChangeW(registration->service.get(), notifyMask, &record);
    if (error != ERROR_SUCCESS)
        Fail(error, "NotifyServiceStatusChangeW");
}

StateNotification::~StateNotification() {
    registration->service.reset();
    if (!registration->notified)
        ::SleepEx(0, TRUE);  // takes a call that was queued meanwhile
}

SERVICE_STATUS_PROCESS StateNotification::Wait() {
    const Deadline deadline;
    while (!registration->notified) {  // it is an asynchronous procedure call of this thread
        if (deadline.Over())
            throw std::runtime_error("the service does not reach the state");
        ::SleepEx(deadline.MillisecondsLeft(), TRUE);
    }
    return registration->record.ServiceStatus;
}

void InstallService(const std::wstring& programPath, const std::wstring& arguments) {
    const std::wstring commandLine = L"\"" + programPath + L"\" " + arguments;
    const UniqueServiceHandle service(
        ::CreateServiceW(OpenManager().get(), kServiceName, kDisplayName, SERVICE_ALL_ACCESS,
                         SERVICE_WIN32_OWN_PROCESS, SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL,
                         commandLine.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr));
    if (!service)
        FailLast("CreateServiceW");
}

DWORD StartInstalledService() {
    return ::StartServiceW(OpenInstalledService().get(), 0, nullptr) ? ERROR_SUCCESS
                                                                     : ::GetLastError();
}

DWORD ControlInstalledService(DWORD control) {
    SERVICE_STATUS status{};
    if (::ControlService(OpenInstalledService().get(), control, &status))
        return ERROR_SUCCESS;
    const DWORD error = ::GetLastError();
    // Wine: a service that stops quickly can end before its process has answered the control.
    return control == SERVICE_CONTROL_STOP && error == ERROR_BROKEN_PIPE ? ERROR_SUCCESS : error;
}

SERVICE_STATUS_PROCESS StatusOfInstalledService() {
    return StatusOf(OpenInstalledService());
}

void RemoveInstalledService() {
    RemoveService(OpenInstalledService());
}

void RemoveLeftService() {
    const UniqueServiceHandle manager = OpenManager();
    UniqueServiceHandle service = FindService(manager);
    if (!service)
        return;
    wchar_t name[256] = {};
    DWORD length = static_cast<DWORD>(std::size(name));
    if (!::GetServiceDisplayNameW(manager.get(), kServiceName, name, &length))
        FailLast("GetServiceDisplayNameW");
    if (std::wstring_view(name) != kDisplayName)
        throw std::runtime_error("a service OrvikService that is none of the tests is installed");
    RemoveService(std::move(service));
}

}  // namespace system_test
