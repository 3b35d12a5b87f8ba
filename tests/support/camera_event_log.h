// The events that a subscriber of a PersistentClient has received.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "deadline.h"
#include "orvik/persistent_client.h"

namespace client_test {

/// As words: "+1.3" for camera 3 of generation 1 attached, "-1.3" for detached, "connected", and
/// the kind of the error for disconnected. Thread: any.
class CameraEventLog {
public:
    orvik::CameraEventHandler Handler() {
        return [this](const orvik::CameraEvent& event) {
            const std::lock_guard lock(mutex);
            words.push_back(Word(event));
            changed.notify_all();
        };
    }

    /// Waits for that many events, and returns all.
    std::vector<std::string> WaitFor(std::size_t count) const {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, kDeadline, [&] { return words.size() >= count; }));
        return words;
    }

    /// Waits for that many events. False if they do not come within `time`.
    bool HasWithin(std::size_t count, std::chrono::milliseconds time) const {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, time, [&] { return words.size() >= count; });
    }

    /// Waits until this is the newest event.
    void WaitForNewest(const std::string& word) const {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, kDeadline,
                                     [&] { return !words.empty() && words.back() == word; }))
            << word << " did not come; the newest is " << (words.empty() ? "" : words.back());
    }

    std::vector<std::string> Words() const { return WaitFor(0); }

private:
    static std::string Word(const orvik::CameraEvent& event) {
        const std::string camera =
            std::to_string(event.camera.generation) + "." + std::to_string(event.camera.id);
        switch (event.kind) {
            case orvik::CameraEvent::Kind::kConnected:
                return "connected";
            case orvik::CameraEvent::Kind::kDisconnected:
                return std::string(ToString(event.error.value().Kind()));
            case orvik::CameraEvent::Kind::kCameraAttached:
                return "+" + camera;
            case orvik::CameraEvent::Kind::kCameraDetached:
                return "-" + camera;
        }
        return "unknown";
    }

    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<std::string> words;
};

}  // namespace client_test
