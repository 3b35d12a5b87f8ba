#include "client/pipe_stream.h"

#include <algorithm>
#include <utility>

#include "orvik/client.h"

namespace orvik {

namespace {

[[noreturn]] void ThrowSystem(const char* text, DWORD code = ::GetLastError()) {
    throw Error(ErrorKind::kSystem, text, code);
}

[[noreturn]] void ThrowPipeError(const char* text, DWORD code) {
    const bool gone =
        code == ERROR_BROKEN_PIPE || code == ERROR_NO_DATA || code == ERROR_PIPE_NOT_CONNECTED;
    throw Error(gone ? ErrorKind::kServiceGone : ErrorKind::kSystem,
                gone ? "the service has closed the connection" : text, code);
}

UniqueHandle MakeEvent() {
    UniqueHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!event)
        ThrowSystem("cannot create an event");
    return event;
}

/// Waits for an operation that is pending. False when the deadline has passed.
bool WaitFor(HANDLE event, const Deadline& deadline) noexcept {
    return ::WaitForSingleObject(event, deadline.Left()) == WAIT_OBJECT_0;
}

}  // namespace

UniqueHandle OpenPipe(const std::wstring& name, const Deadline& deadline) {
    while (true) {
        // The service may learn who its client is, but not act in the client's name.
        UniqueHandle pipe = OwnFile(::CreateFileW(
            name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
            FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
        if (pipe)
            return pipe;
        const DWORD code = ::GetLastError();
        switch (code) {
            case ERROR_PIPE_BUSY:
                break;
            case ERROR_FILE_NOT_FOUND:
                throw Error(ErrorKind::kNotRunning,
                            "the service is not running, its pipe is not there", code);
            case ERROR_ACCESS_DENIED:
                throw Error(ErrorKind::kAccessDenied, "this user may not connect to the service",
                            code);
            default:
                ThrowSystem("cannot connect to the service", code);
        }
        if (deadline.Passed())
            throw Error(ErrorKind::kBusy, "the service is busy and took no new connection", code);
        // Whatever this returns, the next attempt tells: another client may be faster, the service
        // may end. 0 would mean the pipe's own default.
        ::WaitNamedPipeW(name.c_str(), std::max<DWORD>(deadline.Left(), 1));
    }
}

PipeStream::PipeStream(UniqueHandle opened)
    : readEvent(MakeEvent()),
      writeEvent(MakeEvent()),
      pipe(std::move(opened)) {
    reading.hEvent = readEvent.get();
}

PipeStream::~PipeStream() {
    if (!readIssued)
        return;
    DWORD count = 0;
    ::CancelIoEx(pipe.get(), &reading);
    ::GetOverlappedResult(pipe.get(), &reading, &count, TRUE);
}

void PipeStream::Write(std::span<const std::byte> bytes, const Deadline& deadline) {
    OVERLAPPED writing{};
    writing.hEvent = writeEvent.get();
    if (::WriteFile(pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr, &writing))
        return;
    if (const DWORD code = ::GetLastError(); code != ERROR_IO_PENDING)
        ThrowPipeError("cannot write to the service", code);

    const bool inTime = WaitFor(writeEvent.get(), deadline);
    if (!inTime)
        ::CancelIoEx(pipe.get(), &writing);
    // Cancelled or not, it is over only now; until then the system uses `bytes` and `writing`.
    DWORD count = 0;
    if (::GetOverlappedResult(pipe.get(), &writing, &count, TRUE))
        return;
    const DWORD code = ::GetLastError();
    if (!inTime && code == ERROR_OPERATION_ABORTED)
        throw Error(ErrorKind::kTimedOut, "the service did not take the request in time");
    ThrowPipeError("cannot write to the service", code);
}

std::optional<std::size_t> PipeStream::Read(std::span<std::byte> target, const Deadline& deadline) {
    DWORD count = 0;
    do {
        if (!readIssued) {
            if (!::ReadFile(pipe.get(), target.data(), static_cast<DWORD>(target.size()), nullptr,
                            &reading)) {
                if (const DWORD code = ::GetLastError(); code != ERROR_IO_PENDING)
                    ThrowPipeError("cannot read from the service", code);
            }
            readIssued = true;
        }
        if (!HasOverlappedIoCompleted(&reading) && !WaitFor(readEvent.get(), deadline))
            return std::nullopt;
        readIssued = false;
        if (!::GetOverlappedResult(pipe.get(), &reading, &count, TRUE))
            ThrowPipeError("cannot read from the service", ::GetLastError());
        // No bytes: the other end has written none, which says nothing.
    } while (count == 0 && !deadline.Passed());
    if (count == 0)
        return std::nullopt;
    return count;
}

}  // namespace orvik
