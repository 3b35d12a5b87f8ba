#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <thread>

#include <windows.h>

#include "client/callback_thread.h"
#include "client/deadline.h"
#include "client/message_reader.h"
#include "client/request_id.h"
#include "orvik/client.h"
#include "protocol/message.h"

namespace orvik {

class AnswerWaiter;

/// One request that has been sent. Its result goes to `waiter`, or else to `completion`; with
/// neither it is dropped.
struct Request {
    TransferType type;
    CameraId camera;
    Deadline due;                    ///< for the answer, or in `refused` for the report
    bool roundTrip = false;          ///< touches no camera, and so is always refused
    AnswerWaiter* waiter = nullptr;  ///< not owned
    bool refused = false;            ///< answered; waits for a report that the camera has gone
    Completion completion{};
    std::chrono::steady_clock::time_point sent{};  ///< for the trace
};

/// A synchronous call that waits for the answer to its request. When it is destroyed, the answer is
/// dropped. Thread: any, with the connection's lock held.
class AnswerWaiter {
public:
    /// `answered` is signalled when another thread has read an answer. Not owned.
    explicit AnswerWaiter(HANDLE answered) noexcept : answeredEvent(answered) {}
    ~AnswerWaiter();

    AnswerWaiter(const AnswerWaiter&) = delete;
    AnswerWaiter& operator=(const AnswerWaiter&) = delete;

    /// None until the request has ended.
    std::optional<TransferResult> result{};

private:
    friend class OutstandingRequests;

    /// The call looks again at its result, and how long it waits.
    void Wake() const noexcept;

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
    /// `callbackThread` is not owned; it outlives this object and calls the completions. `wait` is
    /// ConnectOptions::goneWait.
    OutstandingRequests(CallbackThread& callbackThread, std::chrono::milliseconds wait) noexcept
        : callbacks(&callbackThread),
          goneWait(wait) {}

    /// The identifier that the next Add() gives.
    RequestId NextId() const { return NextRequestId(newest, requests); }

    /// Adds a request that is about to be sent, with the identifier that is returned.
    RequestId Add(Request request);

    /// Removes a request that could not be sent. False if it has ended meanwhile.
    bool Withdraw(RequestId id);

    /// The newest request's identifier. 0: none has been sent.
    RequestId Newest() const noexcept { return newest; }
    bool IsOutstanding(RequestId id) const;

    /// None if there is no such request.
    std::optional<std::chrono::microseconds> TimeSinceSent(RequestId id) const;

    /// Whether a completion will be called for an answer.
    bool CompletionExpected() const;

    /// Ends the request with the service's answer. But a refusal by a camera that is still present
    /// may mean that it has gone: then the request ends when that is reported, or goneWait later.
    /// Throws Error kBadAnswer if it is no answer to an outstanding request.
    void Answer(Message message, bool cameraPresent);

    /// Ends the requests that this camera has refused, because it has gone.
    void CameraGone(CameraId camera);

    /// Ends the requests whose time has come: with kTimedOut, or kRefused if the camera has refused
    /// them.
    void EndDue();

    /// The milliseconds until EndDue() has something to do, or a little less.
    DWORD MillisecondsToDue() const noexcept { return nextDue.Left(); }

    /// Ends a request with kCancelled; its answer is dropped. False if nothing waits for it.
    bool Cancel(RequestId id);

    /// Ends all requests with `error`.
    void EndAll(const Error& error);

    /// From now on the answers to requests with completions are dropped.
    void DropCompletions() noexcept;

private:
    void End(Request& request, TransferResult result);
    void Refuse(Request& request);

    CallbackThread* callbacks;
    std::chrono::milliseconds goneWait;
    Deadline nextDue = Deadline::None();    // not later than that of any request
    std::map<RequestId, Request> requests;  // until they are answered; the addresses stay
    RequestId newest = 0;
};

}  // namespace orvik
