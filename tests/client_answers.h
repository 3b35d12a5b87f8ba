// What the tests of the client library wait for: the answer to a request, and events.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "orvik/client.h"

namespace client_test {

inline constexpr std::chrono::seconds kGenerous{20};  // for what happens unless something is broken

/// The answer to one asynchronous request. A second one ends the program, as all do that a
/// completion throws.
class Answer {
public:
    orvik::Completion Completion() const {
        return [promise = promise](orvik::TransferResult result) {
            promise->set_value(std::move(result));
        };
    }

    /// Waits. Once.
    orvik::TransferResult Get() {
        if (future.wait_for(kGenerous) != std::future_status::ready)
            return {orvik::Error(orvik::ErrorKind::kSystem, "the test got no answer"), {}};
        return future.get();
    }

    /// Waits for the data. Throws the error if there is one.
    std::vector<std::byte> Data() {
        orvik::TransferResult result = Get();
        if (result.error)
            throw orvik::Error(*result.error);
        return std::move(result.data);
    }

    bool HasCome() const {
        return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
    }

private:
    using Promise = std::promise<orvik::TransferResult>;

    std::shared_ptr<Promise> promise = std::make_shared<Promise>();
    std::future<orvik::TransferResult> future = promise->get_future();
};

/// Something that one thread waits for and another makes happen.
class Happening {
public:
    void Set() { promise.set_value(); }
    bool Wait() const { return future.wait_for(kGenerous) == std::future_status::ready; }

private:
    std::promise<void> promise;
    std::shared_future<void> future = promise.get_future().share();
};

/// The events that a subscriber is told of, as words: "+3" camera 3 has come, "-3" it has gone,
/// "gone" the service has.
class EventLog {
public:
    orvik::EventHandler Handler() {
        return [this](const orvik::Event& event) {
            const std::lock_guard lock(mutex);
            words.push_back(Word(event));
            changed.notify_all();
        };
    }

    /// Waits for that many, and returns all.
    std::vector<std::string> WaitFor(std::size_t count) {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, kGenerous, [&] { return words.size() >= count; });
        return words;
    }

    std::size_t Count() const {
        const std::lock_guard lock(mutex);
        return words.size();
    }

    /// Waits for more than `count`.
    void WaitForMore(std::size_t count) {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, kGenerous, [&] { return words.size() > count; }));
    }

    std::vector<std::string> Words() const {
        const std::lock_guard lock(mutex);
        return words;
    }

private:
    static std::string Word(const orvik::Event& event) {
        switch (event.kind) {
            case orvik::Event::Kind::kCameraAttached:
                return "+" + std::to_string(event.camera);
            case orvik::Event::Kind::kCameraDetached:
                return "-" + std::to_string(event.camera);
            case orvik::Event::Kind::kServiceGone:
                break;
        }
        return "gone";
    }

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> words;
};

/// Runs `call`, which must throw, and returns its error.
template <typename Call>
orvik::Error ErrorOf(Call call) {
    try {
        call();
    } catch (const orvik::Error& error) {
        return error;
    }
    ADD_FAILURE() << "nothing was thrown";
    return {orvik::ErrorKind::kSystem, "nothing was thrown"};
}

template <typename Call>
orvik::ErrorKind KindOf(Call call) {
    return ErrorOf(std::move(call)).Kind();
}

}  // namespace client_test
