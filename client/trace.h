#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include <windows.h>

#include "orvik/client.h"
#include "protocol/message.h"
#include "windows/unique_handle.h"

namespace orvik {

/// A file that traces are appended to. Other processes may append to it too, read it and delete it.
/// Thread: any.
class TraceFile {
public:
    /// The file that the environment variable ORVIK_TRACE names; null if there is none, or it
    /// cannot be opened. A trace must not disturb the program, so nothing reports that. The first
    /// call opens it, and it is never closed: a client's thread may outlive everything else.
    static TraceFile* OfProcess() noexcept;

    /// Null if the file cannot be opened.
    static std::unique_ptr<TraceFile> Open(const std::wstring& path);

    /// Adds the time, the process and `number` in front, and writes the line with one WriteFile.
    /// Failures are ignored.
    void WriteLine(unsigned number, std::string_view text) noexcept;

private:
    explicit TraceFile(UniqueHandle opened) noexcept : file(std::move(opened)) {}

    const UniqueHandle file;
    std::mutex mutex;  // keeps the lines in the order of their times
};

/// The trace of one connection: one line for each message, for the connection's beginning and its
/// end. docs/client.md has the format. No line has data: only lengths, and the commands.
///
/// Costs a test of a pointer when there is no file. Thread: any.
class Trace {
public:
    /// `traceFile` is not owned; null: no trace.
    explicit Trace(TraceFile* traceFile = TraceFile::OfProcess()) noexcept;

    /// Whether there is a file. The functions below may only be called then.
    explicit operator bool() const noexcept { return file != nullptr; }

    /// `server` is the process that serves the pipe.
    void Connected(DWORD server, const std::wstring& pipe) const noexcept;
    void NotConnected(const Error& error) const noexcept;

    /// A whole message, which is about to be sent.
    void Sent(std::span<const std::byte> message) const noexcept;

    /// `took` is the time since the request was sent; none for a notification.
    void Received(const MessageHeader& header,
                  std::optional<std::chrono::microseconds> took) const noexcept;

    /// An error has closed the connection.
    void Closed(const Error& error) const noexcept;
    void Disconnected() const noexcept;

private:
    TraceFile* file;
    unsigned number;  // of the connection, in this process
};

}  // namespace orvik
