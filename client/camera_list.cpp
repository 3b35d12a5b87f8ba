#include "client/camera_list.h"

#include <algorithm>

namespace orvik {

bool CameraList::Contains(CameraId camera) const noexcept {
    return std::find(cameras.begin(), cameras.end(), camera) != cameras.end();
}

void CameraList::Attach(CameraId camera) {
    if (Contains(camera))
        return;
    cameras.push_back(camera);
    PostToAll({Event::Kind::kCameraAttached, camera});
}

void CameraList::Detach(CameraId camera) {
    if (std::erase(cameras, camera) != 0)
        PostToAll({Event::Kind::kCameraDetached, camera});
}

void CameraList::Subscribe(const Subscriber& subscriber) {
    for (const CameraId camera : cameras)
        Post(subscriber, {Event::Kind::kCameraAttached, camera});
    std::erase_if(subscribers, [](const auto& other) { return other.expired(); });
    subscribers.push_back(subscriber);
}

void CameraList::ReportServiceGone(const Error& error) {
    PostToAll({Event::Kind::kServiceGone, 0, error});
    subscribers.clear();
}

void CameraList::ReportServiceGone(const Subscriber& subscriber, const Error& error) {
    Post(subscriber, {Event::Kind::kServiceGone, 0, error});
}

void CameraList::PostToAll(const Event& event) {
    for (const std::weak_ptr<const EventHandler>& subscriber : subscribers)
        Post(subscriber, event);
}

void CameraList::Post(const std::weak_ptr<const EventHandler>& subscriber, const Event& event) {
    callbacks->Post([subscriber, event] {
        // Kept alive during the call, because the handler may end its own subscription.
        if (const Subscriber handler = subscriber.lock())
            (*handler)(event);
    });
}

}  // namespace orvik
