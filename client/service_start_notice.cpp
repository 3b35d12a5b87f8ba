#include "client/service_start_notice.h"

#include "client/deadline.h"
#include "protocol/message.h"
#include "windows/unique_service_handle.h"

namespace orvik {

void CALLBACK ServiceStartNotice::OnNotice(void* parameter) {
    const auto* const called = static_cast<const SERVICE_NOTIFYW*>(parameter);
    static_cast<ServiceStartNotice*>(called->pContext)->notified = true;
}

void ServiceStartNotice::Wait(HANDLE wake, std::chrono::milliseconds most) noexcept {
    const Deadline deadline(most);
    notified = false;
    const UniqueServiceHandle manager(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    UniqueServiceHandle service(
        manager ? ::OpenServiceW(manager.get(), kServiceName, SERVICE_QUERY_STATUS) : nullptr);
    if (service) {
        record = {};
        record.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
        record.pfnNotifyCallback = OnNotice;
        record.pContext = this;
        // A service that is deleted stays until all its handles have been closed. Wine does not
        // report the deletion: the service then stays until this wait ends.
        if (::NotifyServiceStatusChangeW(service.get(),
                                         SERVICE_NOTIFY_RUNNING | SERVICE_NOTIFY_DELETE_PENDING,
                                         &record) != ERROR_SUCCESS)
            service.reset();
    }
    while (!notified &&
           ::WaitForSingleObjectEx(wake, deadline.Left(), TRUE) == WAIT_IO_COMPLETION) {
    }
    service.reset();     // ends the registration
    ::SleepEx(0, TRUE);  // takes a call that was queued before
}

}  // namespace orvik
