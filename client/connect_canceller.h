#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <utility>

#include "orvik/client.h"

namespace orvik {

/// What the copies of a ConnectCanceller share. Thread: any.
struct ConnectCanceller::State {
    std::mutex mutex;
    std::atomic<bool> cancelled{
        false};                    // read without the lock, which Cancel() holds during `action`
    std::function<void()> action;  // ends the wait of the attempt in progress

    /// Throws kCancelled.
    void RequireNotCancelled() const {
        if (cancelled)
            throw Error(ErrorKind::kCancelled, "connecting to the service was cancelled");
    }

    void SetAction(std::function<void()> newAction) {
        const std::lock_guard lock(mutex);
        action = std::move(newAction);
    }
};

}  // namespace orvik
