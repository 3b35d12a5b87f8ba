#pragma once

#include <map>
#include <optional>
#include <thread>

#include <windows.h>

#include "client/callback_thread.h"
#include "client/message_reader.h"
#include "client/request_id.h"
#include "orvik/client.h"
#include "protocol/message.h"

namespace orvik {

class AnswerWaiter;

/// One request that has been sent. Its answer goes to `waiter`, or else to `completion`; with
/// neither it is dropped.
struct Request {
    TransferType type;
    CameraId camera;
    bool roundTrip = false;          ///< touches no camera, and so is always refused
    AnswerWaiter* waiter = nullptr;  ///< not owned
    Completion completion{};
};

/// A synchronous call that waits for the answer to its request. When it is destroyed, the answer is
/// dropped. Thread: any, with the connection's lock held.
class AnswerWaiter {
public:
    /// `answered` is signalled when another thread has read the answer. Not owned.
    explicit AnswerWaiter(HANDLE answered) noexcept : answeredEvent(answered) {}
    ~AnswerWaiter();

    AnswerWaiter(const AnswerWaiter&) = delete;
    AnswerWaiter& operator=(const AnswerWaiter&) = delete;

    /// None until the request has ended.
    std::optional<TransferResult> result{};

private:
    friend class OutstandingRequests;

    const HANDLE answeredEvent;
    const std::thread::id thread = std::this_thread::get_id();
    Request* request = nullptr;  // not owned; null: not sent, or ended
};

/// The requests that have been sent and not answered. Matches each answer with its request, and
/// passes it on.
///
/// Thread: any, with the connection's lock held.
class OutstandingRequests {
public:
    /// `callbackThread` is not owned; it outlives this object and calls the completions.
    explicit OutstandingRequests(CallbackThread& callbackThread) noexcept
        : callbacks(&callbackThread) {}

    /// The identifier that the next Add() gives.
    RequestId NextId() const { return NextRequestId(newest, requests); }

    /// Adds a request that is about to be sent, with the identifier that is returned.
    RequestId Add(Request request);

    /// Removes a request that could not be sent. False if it has ended meanwhile.
    bool Withdraw(RequestId id);

    /// The newest request's identifier. 0: none has been sent.
    RequestId Newest() const noexcept { return newest; }
    bool IsOutstanding(RequestId id) const { return requests.contains(id); }

    /// Whether a completion will be called for an answer.
    bool CompletionExpected() const;

    /// Ends the request with the service's answer.
    /// Throws Error kBadAnswer if it is no answer to an outstanding request.
    void Answer(Message message);

    /// Ends a request that has a completion with kCancelled; its answer is dropped. False if there
    /// is no such request.
    bool Cancel(RequestId id);

    /// Ends all requests with `error`.
    void EndAll(const Error& error);

    /// From now on the answers to requests with completions are dropped.
    void DropCompletions() noexcept;

private:
    void End(Request& request, TransferResult result);

    CallbackThread* callbacks;
    std::map<RequestId, Request> requests;  // until they are answered; the addresses stay
    RequestId newest = 0;
};

}  // namespace orvik
