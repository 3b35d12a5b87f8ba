#pragma once

#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#include <windows.h>

#include "cancellation.h"
#include "exit_code.h"
#include "windows/unique_handle.h"

/// Passes messages from the client's thread to the main thread, in order. Ctrl-C ends a wait.
template <class Message>
class Mailbox {
public:
    using Clock = std::chrono::steady_clock;

    Mailbox() : filled(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        if (!filled)
            throw SystemFailure("cannot create an event");
    }

    /// Thread: any.
    void Put(Message message) {
        const std::lock_guard lock(mutex);
        messages.push_back(std::move(message));
        ::SetEvent(filled.get());
    }

    /// Waits for the oldest message. Empty if `deadline` passes first; no deadline means no limit.
    /// Throws Failure with ExitCode::kCancelled on Ctrl-C.
    std::optional<Message> Take(const std::optional<Clock::time_point>& deadline) {
        const HANDLE handles[] = {CancellationEvent(), filled.get()};
        const DWORD result =
            ::WaitForMultipleObjects(2, handles, FALSE, deadline ? Left(*deadline) : INFINITE);
        ThrowIfCancelled();
        if (result == WAIT_TIMEOUT)
            return std::nullopt;
        const std::lock_guard lock(mutex);
        std::optional<Message> message = std::move(messages.front());
        messages.pop_front();
        if (messages.empty())
            ::ResetEvent(filled.get());
        return message;
    }

private:
    static DWORD Left(Clock::time_point deadline) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        return left.count() > 0 ? static_cast<DWORD>(left.count()) : 0;
    }

    std::mutex mutex;
    std::deque<Message> messages;
    UniqueHandle filled;  // signalled while there are messages
};
