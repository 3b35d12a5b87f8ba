#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>

#include <windows.h>

#include "client/deadline.h"
#include "windows/unique_handle.h"

namespace orvik {

/// The client's end of the pipe. Its calls throw Error: kServiceGone when the other end is closed,
/// kSystem for every other failure.
///
/// Thread: any, one at a time. PipeWrite::Finish() may wait beside other calls.
class PipeStream {
public:
    /// Takes over a pipe that was opened for overlapped use. `readEvent` has a manual reset, and is
    /// not owned. It is signalled when Read() has something to return, but possibly earlier too. A
    /// caller that waited for it and then gets nothing from Read() resets it, and calls Read() once
    /// more before the next wait.
    PipeStream(UniqueHandle opened, HANDLE readEvent);

    /// Cancels the reads and writes in progress, and waits until the system no longer uses the
    /// read's target.
    ~PipeStream();

    PipeStream(const PipeStream&) = delete;
    PipeStream& operator=(const PipeStream&) = delete;

    /// Reads into `target`, and returns the number of bytes, at least one. Never waits: if there is
    /// nothing to read yet, it leaves the read pending and returns nothing. While a read is
    /// pending, `target` must stay alive, and each call must name the same one.
    std::optional<std::size_t> Read(std::span<std::byte> target);

    /// The process at the other end; 0 if the system does not say.
    DWORD ServerProcess() const noexcept;

private:
    friend class PipeWrite;

    std::shared_ptr<void> pipe;  // shared with the writes in progress
    OVERLAPPED reading{};
    bool readIssued = false;
};

/// One write. Any number can be in progress; their bytes are sent in the order of Start().
class PipeWrite {
public:
    /// `event` is needed until Finish() has returned.
    explicit PipeWrite(HANDLE event) noexcept { writing.hEvent = event; }

    PipeWrite(const PipeWrite&) = delete;
    PipeWrite& operator=(const PipeWrite&) = delete;

    /// Starts to write all of `bytes`, with one WriteFile. Never waits. Unless it throws, Finish()
    /// must be called, and `bytes` must stay alive until Finish() has returned.
    void Start(const PipeStream& stream, std::span<const std::byte> bytes);

    /// Whether Finish() would have to wait.
    bool Pending() const noexcept { return pipe != nullptr; }

    /// Waits for the end of the write. The stream may have been destroyed by then.
    /// Throws kTimedOut too; then any part of the bytes may have been sent.
    void Finish(const Deadline& deadline);

private:
    std::shared_ptr<void> pipe;  // empty: written at once
    OVERLAPPED writing{};
};

}  // namespace orvik
