#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

#include <windows.h>

#include "client/deadline.h"
#include "windows/unique_handle.h"

namespace orvik {

/// The client's thread: calls completions and event handlers, one after the other, in the order
/// posted.
///
/// While there is nothing to call, the thread also reads the pipe, but leaves that to synchronous
/// calls while there are any. To be woken for each message, only to find that a synchronous call
/// has read it, would cost that call a fifth of its time. This class decides what the thread waits
/// for; the owner's function, which the thread runs, does the reading and the waiting.
///
/// Thread: any, with the owner's lock held, except in Start().
class CallbackThread {
public:
    using Lock = std::unique_lock<std::mutex>;

    /// Throws Error kSystem.
    CallbackThread();

    CallbackThread(const CallbackThread&) = delete;
    CallbackThread& operator=(const CallbackThread&) = delete;

    /// Starts the thread, which runs `body`. Once. Throws Error kSystem.
    void Start(std::function<void()> body);

    /// Adds a call. What it throws ends the program.
    void Post(std::function<void()> callback);

    /// Drops the calls that have not begun, and asks the thread to end.
    void Stop() noexcept;

    /// After Stop(): waits for the end of the thread, but not if a callback is in progress, because
    /// the caller may be that callback, or what it waits for. Then a DLL that contains this library
    /// stays loaded until the thread has ended. Releases the lock.
    void JoinOrDetach(Lock& lock) noexcept;

    /// Tells the thread that the answer of a request with a completion is expected, so that it
    /// reads the pipe.
    void ExpectCompletion() noexcept;

    /// Tells the thread to wait no longer than until then before it looks at everything again.
    void WakeBy(const Deadline& time) noexcept;

    /// One synchronous call, which reads the pipe while this object lives.
    class SynchronousCall {
    public:
        explicit SynchronousCall(CallbackThread& callbackThread) noexcept;
        ~SynchronousCall();

        SynchronousCall(const SynchronousCall&) = delete;
        SynchronousCall& operator=(const SynchronousCall&) = delete;

    private:
        CallbackThread* owner;  // not owned
    };

    // For the body.

    bool Stopped() const noexcept { return stopped; }
    bool HasCallbacks() const noexcept { return !callbacks.empty(); }

    /// Makes the next call, without the lock.
    void CallNext(Lock& lock);

    /// How the thread waits next.
    struct Wait {
        HANDLE wake;         ///< in any case until this is signalled
        DWORD milliseconds;  ///< or until this time has passed
        bool forPipe;        ///< or until something can be read
    };

    /// `completionExpected`: a request with a completion is outstanding. `mostMilliseconds`: the
    /// time until the owner has something to do.
    Wait BeginWait(bool completionExpected, DWORD mostMilliseconds) noexcept;
    void EndWait() noexcept { waits = Waits::kNot; }

private:
    /// What the thread waits for, besides callbacks.
    enum class Waits {
        kNot,  // it looks for callbacks, and at everything below, before it waits again
        kForPipe,
        kForNextCall,  // a short time: after one synchronous call another one is expected
        kForLastCall,  // the end of the last synchronous call
    };

    void Wake() noexcept;

    const UniqueHandle wakeEvent;
    std::thread thread;
    std::deque<std::function<void()>> callbacks;
    Waits waits = Waits::kNot;
    Deadline waitEnd = Deadline::None();
    int callsInProgress = 0;      // synchronous ones
    std::uint64_t callsMade = 0;  // synchronous ones
    std::uint64_t callsSeen = 0;  // by the thread, when it last began to wait
    bool calling = false;
    DWORD callingThread = 0;  // while `calling`
    bool stopped = false;
};

}  // namespace orvik
