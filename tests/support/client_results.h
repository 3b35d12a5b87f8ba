// What the tests of the client library wait for: results of requests, events, errors.
#pragma once

#include <chrono>
#include <cstddef>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "deadline.h"
#include "orvik/client.h"
#include "word_log.h"

namespace client_test {

/// The result of one asynchronous request. A second result ends the program, because an exception
/// from a completion does.
class Answer {
public:
    orvik::Completion Completion() const {
        return [promise = promise](orvik::TransferResult result) {
            promise->set_value(std::move(result));
        };
    }

    /// Waits. Once.
    orvik::TransferResult Get() {
        if (future.wait_for(kDeadline) != std::future_status::ready)
            return {orvik::Error(orvik::ErrorKind::kSystem, "the completion was not called"), {}};
        return future.get();
    }

    /// Waits for the data. Throws the error if there is one.
    std::vector<std::byte> Data() {
        orvik::TransferResult result = Get();
        if (result.error)
            throw orvik::Error(*result.error);
        return std::move(result.data);
    }

private:
    using Promise = std::promise<orvik::TransferResult>;

    std::shared_ptr<Promise> promise = std::make_shared<Promise>();
    std::future<orvik::TransferResult> future = promise->get_future();
};

/// One thread waits for it, another one sets it.
class Signal {
public:
    void Set() { promise.set_value(); }
    bool Wait() const { return future.wait_for(kDeadline) == std::future_status::ready; }

private:
    std::promise<void> promise;
    std::shared_future<void> future = promise.get_future().share();
};

/// The events that a subscriber has received: "+3" camera 3 attached, "-3" camera 3 detached,
/// "gone" for the service.
class EventLog : public WordLog {
public:
    orvik::EventHandler Handler() {
        return [this](const orvik::Event& event) {
            if (event.error)
                closedBy = event.error->what();
            Add(Word(event));
        };
    }

    /// After "gone": the text of the error.
    const std::string& ClosedBy() const { return closedBy; }

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

    std::string closedBy;
};

/// Runs `call`, which must throw, and returns its error.
template <typename Call>
orvik::Error ErrorOf(Call call) {
    try {
        call();
    } catch (const orvik::Error& error) {
        return error;
    }
    ADD_FAILURE() << "the call threw no error";
    return {orvik::ErrorKind::kSystem, "the call threw no error"};
}

template <typename Call>
orvik::ErrorKind KindOf(Call call) {
    return ErrorOf(std::move(call)).Kind();
}

}  // namespace client_test
