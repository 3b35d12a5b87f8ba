#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include <windows.h>

#include "client/callback_thread.h"
#include "client/camera_list.h"
#include "client/clean_disconnect.h"
#include "client/deadline.h"
#include "client/message_reader.h"
#include "client/outstanding_requests.h"
#include "client/pipe_stream.h"
#include "client/trace.h"
#include "orvik/client.h"
#include "windows/unique_handle.h"

namespace orvik {

/// Everything that a Client shares with its thread: the pipe, and the state that the messages on it
/// change.
///
/// No thread is dedicated to reading. Whichever thread waits for an answer reads the pipe, and
/// handles every message that arrives, also those for other threads. So a synchronous call depends
/// on no other thread, and works while a handler runs. When no synchronous call waits, the client's
/// thread reads the pipe.
///
/// Thread: any; one lock protects everything. A thread that reads much releases it now and then,
/// so that the others keep their deadlines.
class Client::Connection : public std::enable_shared_from_this<Client::Connection> {
public:
    /// Connects. Throws as Client's constructor does.
    explicit Connection(const ConnectOptions& options);

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Starts the client's thread, which shares the ownership. Once. Throws Error kSystem.
    void StartThread();

    /// Does what ~Client() documents. Once; nothing else may be called afterwards.
    void Disconnect() noexcept;

    // The same as Client's.
    std::vector<CameraId> Cameras();
    void RoundTrip(const Deadline& deadline);
    void Subscribe(const Subscriber& subscriber);
    std::vector<std::byte> Transfer(TransferType type, CameraId camera,
                                    std::span<const std::byte> cdb, std::span<const std::byte> data,
                                    const Deadline& deadline);
    RequestId StartTransfer(TransferType type, CameraId camera, std::span<const std::byte> cdb,
                            std::span<const std::byte> data, Completion completion,
                            std::chrono::milliseconds timeout);
    bool Cancel(RequestId id);

private:
    using Lock = CallbackThread::Lock;

    /// The events of one call. They are kept for later calls.
    struct CallEvents {
        UniqueHandle written;
        UniqueHandle answered;  // by another thread
    };
    CallEvents TakeEvents();

    // All but this one are called with the lock held.
    void RunThread() noexcept;

    void RequireOpen() const;
    void RequireCamera(Lock& lock, CameraId camera, const Deadline& deadline);
    RequestId Send(Lock& lock, Request request, std::span<std::byte> message, HANDLE written,
                   const Deadline& deadline);
    TransferResult SendAndWait(Lock& lock, Request request, std::span<std::byte> message,
                               const Deadline& deadline);
    void RoundTrip(Lock& lock, const Deadline& deadline);

    void Wait(Lock& lock, HANDLE event, DWORD milliseconds, bool forPipe);
    void Poll();
    bool ReadAvailable();
    bool ReadAllAvailable(Lock& lock, const Deadline& deadline);
    void Handle(Message message);
    void Close(const Error& error);

    const Trace trace;
    const std::wstring pipeName;
    const std::size_t transferOutLimit;
    const UniqueHandle readEvent;  // of `stream`

    std::mutex mutex;                  // of everything below
    MessageReader reader;              // before `stream`, whose pending read writes into it
    std::optional<PipeStream> stream;  // none once an error has closed it
    std::optional<Error> closedBy;     // that error
    CallbackThread callbacks;
    CameraList cameras{callbacks};
    OutstandingRequests requests;
    DisconnectEvidence disconnectEvidence;
    std::vector<CallEvents> spareEvents;
};

}  // namespace orvik
