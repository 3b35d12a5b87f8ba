#include "client/pipe_stream.h"

#include <utility>

#include "client/pipe_instance.h"
#include "orvik/client.h"

namespace orvik {

namespace {

[[noreturn]] void ThrowPipeError(const char* text, DWORD code) {
    const bool gone =
        code == ERROR_BROKEN_PIPE || code == ERROR_NO_DATA || code == ERROR_PIPE_NOT_CONNECTED;
    throw Error(gone ? ErrorKind::kServiceGone : ErrorKind::kSystem,
                gone ? "the service has closed the connection" : text, code);
}

}  // namespace

PipeStream::PipeStream(UniqueHandle opened, HANDLE readEvent)
    : pipe(opened.release(), HandleCloser()) {
    reading.hEvent = readEvent;
}

PipeStream::~PipeStream() {
    ::CancelIoEx(pipe.get(), nullptr);
    // Not GetOverlappedResult alone: it returns when the event is signalled, which may be too
    // early.
    while (readIssued && !HasOverlappedIoCompleted(&reading))
        ::WaitForSingleObject(reading.hEvent, INFINITE);
}

std::optional<std::size_t> PipeStream::Read(std::span<std::byte> target) {
    while (true) {
        if (!readIssued) {
            if (!::ReadFile(pipe.get(), target.data(), static_cast<DWORD>(target.size()), nullptr,
                            &reading)) {
                if (const DWORD code = ::GetLastError(); code != ERROR_IO_PENDING)
                    ThrowPipeError("cannot read from the service", code);
            }
            readIssued = true;
        }
        DWORD count = 0;
        const bool succeeded = ::GetOverlappedResult(pipe.get(), &reading, &count, FALSE);
        const DWORD code = succeeded ? ERROR_SUCCESS : ::GetLastError();
        if (code == ERROR_IO_INCOMPLETE)
            return std::nullopt;
        readIssued = false;
        // The system cancels a read when the thread that started it ends. Then it is started again.
        if (code != ERROR_SUCCESS && code != ERROR_OPERATION_ABORTED)
            ThrowPipeError("cannot read from the service", code);
        if (count != 0)
            return count;
        // 0 bytes: the other end has written none, which says nothing.
    }
}

DWORD PipeStream::ServerProcess() const noexcept {
    return orvik::ServerProcess(pipe.get());
}

void PipeWrite::Start(const PipeStream& stream, std::span<const std::byte> bytes) {
    if (::WriteFile(stream.pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), nullptr,
                    &writing))
        return;
    if (const DWORD code = ::GetLastError(); code != ERROR_IO_PENDING)
        ThrowPipeError("cannot write to the service", code);
    pipe = stream.pipe;
}

void PipeWrite::Finish(const Deadline& deadline) {
    if (!pipe)
        return;
    const bool inTime = ::WaitForSingleObject(writing.hEvent, deadline.Left()) == WAIT_OBJECT_0;
    if (!inTime)
        ::CancelIoEx(pipe.get(), &writing);
    // Also when cancelled: until the write has ended, the system uses the bytes.
    DWORD count = 0;
    if (::GetOverlappedResult(pipe.get(), &writing, &count, TRUE))
        return;
    const DWORD code = ::GetLastError();
    if (!inTime && code == ERROR_OPERATION_ABORTED)
        throw Error(ErrorKind::kTimedOut,
                    "the service did not read the request in time; probably the service is busy "
                    "with a command");
    ThrowPipeError("cannot write to the service", code);
}

}  // namespace orvik
