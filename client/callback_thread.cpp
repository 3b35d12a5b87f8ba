#include "client/callback_thread.h"

#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include "client/event.h"
#include "client/module.h"
#include "orvik/client.h"

namespace orvik {

namespace {

/// How long after a synchronous call the next one is expected.
constexpr DWORD kMillisecondsBetweenCalls = 10;

}  // namespace

CallbackThread::CallbackThread() : wakeEvent(MakeEvent(false)) {}

void CallbackThread::Start(std::function<void()> body) {
    try {
        thread = std::thread(std::move(body));
    } catch (const std::system_error& error) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot start the client's thread: ") + error.what());
    }
}

void CallbackThread::Post(std::function<void()> callback) {
    callbacks.push_back(std::move(callback));
    if (waits != Waits::kNot)
        Wake();
}

void CallbackThread::Stop() noexcept {
    stopped = true;
    callbacks.clear();
    Wake();
}

void CallbackThread::JoinOrDetach(Lock& lock) noexcept {
    const bool inCallback = calling;
    if (inCallback)  // while the lock shows that the thread has not ended
        KeepModuleLoadedDuring(callingThread);
    lock.unlock();
    if (!thread.joinable())
        return;
    if (inCallback)
        thread.detach();
    else
        thread.join();
}

void CallbackThread::ExpectCompletion() noexcept {
    if (waits == Waits::kForNextCall || waits == Waits::kForLastCall)
        Wake();
}

void CallbackThread::WakeBy(const Deadline& time) noexcept {
    if (waits != Waits::kNot && time < waitEnd)
        Wake();
}

CallbackThread::SynchronousCall::SynchronousCall(CallbackThread& callbackThread) noexcept
    : owner(&callbackThread) {
    ++owner->callsMade;
    ++owner->callsInProgress;
}

CallbackThread::SynchronousCall::~SynchronousCall() {
    --owner->callsInProgress;
    if (owner->callsInProgress == 0 && owner->waits == Waits::kForLastCall)
        owner->Wake();
}

void CallbackThread::CallNext(Lock& lock) {
    calling = true;
    callingThread = ::GetCurrentThreadId();
    {
        const std::function<void()> callback = std::move(callbacks.front());
        callbacks.pop_front();
        lock.unlock();
        callback();
        // Destroyed without the lock too: its destructor may call the client.
    }
    lock.lock();
    calling = false;
}

CallbackThread::Wait CallbackThread::BeginWait(bool completionExpected,
                                               DWORD mostMilliseconds) noexcept {
    const bool called = std::exchange(callsSeen, callsMade) != callsMade;
    DWORD milliseconds = mostMilliseconds;
    if (!completionExpected && called) {
        waits = Waits::kForNextCall;
        milliseconds = std::min(mostMilliseconds, kMillisecondsBetweenCalls);
    } else if (!completionExpected && callsInProgress != 0) {
        waits = Waits::kForLastCall;
    } else {
        waits = Waits::kForPipe;
    }
    waitEnd = Deadline(std::chrono::milliseconds(milliseconds));
    return {wakeEvent.get(), milliseconds, waits == Waits::kForPipe};
}

void CallbackThread::Wake() noexcept {
    waits = Waits::kNot;
    ::SetEvent(wakeEvent.get());
}

}  // namespace orvik
