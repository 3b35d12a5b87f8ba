#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "orvik/client.h"
#include "orvik/orvik.h"

namespace orvik::c_api {

/// The callbacks of one client. Calls none before the client's handle has been returned and none
/// after it has been closed, and each completion exactly once.
///
/// Thread: any.
class Callbacks {
public:
    Callbacks(orvik_client* clientHandle, orvik_event_callback onEvent, void* user);

    Callbacks(const Callbacks&) = delete;
    Callbacks& operator=(const Callbacks&) = delete;

    /// From now on callbacks are called. One that is due already waits for this.
    void Open() noexcept;

    /// No callback begins after this. Waits for the one in progress, unless that is the caller.
    void Close() noexcept;

    /// After Close(): ends the requests that have not ended.
    void CancelOutstanding() noexcept;

    /// The client; null when it is being closed.
    orvik_client* Handle() noexcept;

    // On the client's thread.
    void Report(orvik_event event) noexcept;
    void Complete(std::uint64_t number, const TransferResult& result) noexcept;

    /// A request that is about to be sent. Its number is for Complete(). Throws std::bad_alloc.
    std::uint64_t Add(orvik_completion completion, void* user);

    /// Removes a request that could not be sent.
    void Withdraw(std::uint64_t number) noexcept;

private:
    using Lock = std::unique_lock<std::mutex>;

    struct Request {
        orvik_completion completion;
        void* user;
    };

    bool Begin(Lock& lock) noexcept;
    void End(Lock& lock) noexcept;

    std::mutex mutex;
    std::condition_variable changed;
    orvik_client* client;  // not owned
    const orvik_event_callback eventCallback;
    void* const eventUser;
    bool opened = false;
    bool closed = false;
    std::thread::id caller;  // of the callback in progress
    std::map<std::uint64_t, Request> outstanding;
    std::uint64_t newest = 0;
};

}  // namespace orvik::c_api
