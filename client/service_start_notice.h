#pragma once

#include <chrono>

#include <windows.h>

namespace orvik {

/// The service control manager's notice that the service OrvikService runs.
///
/// Thread: one, which makes no other alertable wait and queues no calls to itself.
class ServiceStartNotice {
public:
    ServiceStartNotice() = default;

    ServiceStartNotice(const ServiceStartNotice&) = delete;
    ServiceStartNotice& operator=(const ServiceStartNotice&) = delete;

    /// Waits until the service runs, `wake` is signalled, or the time has passed. If the service is
    /// not installed, or this user may not query its state, there is no notice.
    void Wait(HANDLE wake, std::chrono::milliseconds most) noexcept;

private:
    static void CALLBACK OnNotice(void* parameter);

    // Not on the stack: under Wine the system may write to it a moment after the handle of the
    // service has been closed.
    SERVICE_NOTIFYW record{};
    bool notified = false;
};

}  // namespace orvik
