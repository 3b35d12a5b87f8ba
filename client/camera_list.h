#pragma once

#include <memory>
#include <vector>

#include "client/callback_thread.h"
#include "orvik/client.h"

namespace orvik {

using Subscriber = std::shared_ptr<const EventHandler>;

/// The cameras that the service has announced, and the subscribers who are called for each change.
///
/// Thread: any, with the connection's lock held.
class CameraList {
public:
    /// `callbackThread` is not owned; it outlives this object and calls the handlers.
    explicit CameraList(CallbackThread& callbackThread) noexcept : callbacks(&callbackThread) {}

    /// In the order announced.
    const std::vector<CameraId>& All() const noexcept { return cameras; }
    bool Contains(CameraId camera) const noexcept;

    // The service's notifications. One that changes nothing causes no event.
    void Attach(CameraId camera);
    void Detach(CameraId camera);

    /// Has the handler called for each camera present, then for each change, until its Subscription
    /// ends.
    void Subscribe(const Subscriber& subscriber);

    /// The subscribers' last event: `error` has closed the connection.
    void ReportServiceGone(const Error& error);
    void ReportServiceGone(const Subscriber& subscriber, const Error& error);

    void EndSubscriptions() noexcept { subscribers.clear(); }

private:
    void Post(const std::weak_ptr<const EventHandler>& subscriber, const Event& event);
    void PostToAll(const Event& event);

    CallbackThread* callbacks;
    std::vector<CameraId> cameras;
    std::vector<std::weak_ptr<const EventHandler>> subscribers;  // owned by their Subscriptions
};

}  // namespace orvik
