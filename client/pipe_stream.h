#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>

#include <windows.h>

#include "client/deadline.h"
#include "windows/unique_handle.h"

namespace orvik {

/// An event of Windows. Throws Error kSystem.
UniqueHandle MakeEvent(bool manualReset);

/// The client's end of the pipe. Its calls throw Error: kServiceGone when the other end is closed,
/// kSystem for what else goes wrong.
///
/// Thread: any, one at a time, but for the wait in PipeWrite::Finish().
class PipeStream {
public:
    /// Takes over a pipe that was opened for overlapped use. `readEvent` has a manual reset, and is
    /// not owned. It is signalled when Read() has something to return, and possibly when not: who
    /// has waited for it, and then has nothing from Read(), resets it, and calls Read() once more
    /// before waiting again.
    PipeStream(UniqueHandle opened, HANDLE readEvent);

    /// Cancels what is under way, and waits until the system has let go of the read's target.
    ~PipeStream();

    PipeStream(const PipeStream&) = delete;
    PipeStream& operator=(const PipeStream&) = delete;

    /// Never waits. How many bytes have come into `target`, at least one; empty: none yet, the read
    /// is under way. Until it has come, `target` stays alive and each call names it.
    std::optional<std::size_t> Read(std::span<std::byte> target);

private:
    friend class PipeWrite;

    std::shared_ptr<void> pipe;  // shared with the writes under way
    OVERLAPPED reading{};
    bool readIssued = false;
};

/// One write. Any number can be under way, and their bytes leave in the order of Start().
class PipeWrite {
public:
    /// `event` is needed until Finish() has returned.
    explicit PipeWrite(HANDLE event) noexcept { writing.hEvent = event; }

    PipeWrite(const PipeWrite&) = delete;
    PipeWrite& operator=(const PipeWrite&) = delete;

    /// Hands all of `bytes` to the system, with one WriteFile. Never waits. Unless it throws,
    /// Finish() must be called, and `bytes` stay alive until it has returned.
    void Start(const PipeStream& stream, std::span<const std::byte> bytes);

    /// Whether Finish() would have to wait.
    bool Pending() const noexcept { return pipe != nullptr; }

    /// Waits until they have left. The stream may be gone by then.
    /// Throws kTimedOut too; then any part of them may have left.
    void Finish(const Deadline& deadline);

private:
    std::shared_ptr<void> pipe;  // empty: done at once
    OVERLAPPED writing{};
};

}  // namespace orvik
