#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include <windows.h>

#include "client/deadline.h"
#include "device/unique_handle.h"

namespace orvik {

/// Opens an instance of the pipe; while all are taken it waits for the next.
/// Throws Error: kNotRunning, kBusy, kAccessDenied, kSystem.
UniqueHandle OpenPipe(const std::wstring& name, const Deadline& deadline);

/// The client's end of the pipe, as a stream of bytes with deadlines.
///
/// Thread: one at a time. Both calls throw Error: kServiceGone when the other end is closed,
/// kSystem for what else goes wrong.
class PipeStream {
public:
    /// Takes over a pipe from OpenPipe().
    explicit PipeStream(UniqueHandle opened);

    /// Cancels the read that is issued, and waits until the system has let go of its target.
    ~PipeStream();

    PipeStream(const PipeStream&) = delete;
    PipeStream& operator=(const PipeStream&) = delete;

    /// Writes all of `bytes` with one WriteFile.
    /// Throws kTimedOut too; then any part of `bytes` may have left.
    void Write(std::span<const std::byte> bytes, const Deadline& deadline);

    /// Reads at least one byte into `target`, and returns how many. Empty when the deadline has
    /// passed: the read stays issued, so `target` stays alive and the next call names it again.
    std::optional<std::size_t> Read(std::span<std::byte> target, const Deadline& deadline);

private:
    // Each operation has an event of its own, as the other may be pending at the same time.
    UniqueHandle readEvent;
    UniqueHandle writeEvent;
    UniqueHandle pipe;
    OVERLAPPED reading{};
    bool readIssued = false;
};

}  // namespace orvik
