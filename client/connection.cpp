#include "client/connection.h"

#include <algorithm>
#include <new>
#include <thread>
#include <utility>

#include "client/connect_canceller.h"
#include "client/connecting.h"
#include "client/event.h"
#include "client/request_message.h"

namespace orvik {

namespace {

/// Messages without a body that the pipe's buffer holds.
constexpr int kMessagesInPipe = 65'536 / sizeof(MessageHeader);

/// Reads that a thread makes before it lets another thread have the lock: so few that the other
/// thread's deadline is kept.
constexpr int kReadsAtOnce = 32;

}  // namespace

Client::Connection::Connection(const ConnectOptions& options)
    : pipeName(options.pipe.empty() ? std::wstring(kCameraPipeName) : options.pipe),
      transferOutLimit(std::min(options.transferOutLimit, kTransferOutLimit)),
      readEvent(MakeEvent(true)),
      requests(callbacks, options.goneWait) {
    const Deadline deadline(options.timeout);
    ConnectCanceller::State& canceller = *options.canceller.state;
    try {
        stream.emplace(ConnectToService(pipeName, options.checkServer, deadline,
                                        [&canceller] { canceller.RequireNotCancelled(); }),
                       readEvent.get());
    } catch (const Error& error) {
        if (trace)
            trace.NotConnected(error);
        throw;
    }
    if (trace)
        trace.Connected(stream->ServerProcess(), pipeName);
    // The service sends the notifications of the cameras present before it answers this. If the
    // service hangs until the deadline, it finds this request when it goes on, then cannot write
    // the answer, and takes that for an ordinary disconnect.
    canceller.SetAction([this] {
        const Lock lock(mutex);
        requests.Cancel(requests.Newest());
    });
    // Ends before Disconnect(), whose round trip must not be cancelled.
    const auto endAction = [](ConnectCanceller::State* state) { state->SetAction({}); };
    try {
        const std::unique_ptr<ConnectCanceller::State, decltype(endAction)> action(&canceller,
                                                                                   endAction);
        Lock lock(mutex);
        canceller.RequireNotCancelled();
        RoundTrip(lock, deadline);
    } catch (const Error& error) {
        if (error.Kind() == ErrorKind::kCancelled)
            Disconnect();
        else if (trace && stream)
            trace.Closed(error);
        throw;
    }
}

void Client::Connection::StartThread() {
    callbacks.Start([self = shared_from_this()] { self->RunThread(); });
}

void Client::Connection::Disconnect() noexcept {
    const Deadline deadline(kDisconnectTimeout);
    Lock lock(mutex);
    callbacks.Stop();
    cameras.EndSubscriptions();
    requests.DropCompletions();
    try {
        if (stream && !disconnectEvidence.ServiceReads()) {
            if (requests.IsOutstanding(requests.Newest()))
                RoundTrip(lock, deadline);
            PrepareDisconnect(*stream, pipeName, requests.NextId(), deadline);
        }
    } catch (const std::exception&) {
        // The service has gone, or has hung until the deadline.
    }
    if (trace && stream)
        trace.Disconnected();
    stream.reset();
    callbacks.JoinOrDetach(lock);
}

std::vector<CameraId> Client::Connection::Cameras() {
    Lock lock(mutex);
    ReadAllAvailable(lock, Deadline(kTransferTimeout));
    RequireOpen();
    return cameras.All();
}

void Client::Connection::RoundTrip(const Deadline& deadline) {
    Lock lock(mutex);
    RoundTrip(lock, deadline);
}

void Client::Connection::Subscribe(const Subscriber& subscriber) {
    const Lock lock(mutex);
    if (stream)
        cameras.Subscribe(subscriber);
    else
        cameras.ReportServiceGone(subscriber, *closedBy);
}

std::vector<std::byte> Client::Connection::Transfer(TransferType type, CameraId camera,
                                                    std::span<const std::byte> cdb,
                                                    std::span<const std::byte> data,
                                                    const Deadline& deadline) {
    std::vector<std::byte> message = MakeTransferRequest(type, camera, cdb, data, transferOutLimit);
    Lock lock(mutex);
    RequireCamera(lock, camera, deadline);
    TransferResult result =
        SendAndWait(lock, {.type = type, .camera = camera, .due = deadline}, message, deadline);
    if (result.error)
        throw Error(*result.error);
    return std::move(result.data);
}

RequestId Client::Connection::StartTransfer(TransferType type, CameraId camera,
                                            std::span<const std::byte> cdb,
                                            std::span<const std::byte> data, Completion completion,
                                            std::chrono::milliseconds timeout) {
    if (!completion)
        throw Error(ErrorKind::kBadArgument, "completion must be a function; it is empty");
    std::vector<std::byte> message = MakeTransferRequest(type, camera, cdb, data, transferOutLimit);
    const Deadline due(timeout);
    const Deadline deadline = std::min(due, Deadline(kTransferTimeout));
    Lock lock(mutex);
    RequireCamera(lock, camera, deadline);
    CallEvents events = TakeEvents();
    const RequestId id = Send(
        lock, {.type = type, .camera = camera, .due = due, .completion = std::move(completion)},
        message, events.written.get(), deadline);
    callbacks.ExpectCompletion();
    callbacks.WakeBy(due);
    spareEvents.push_back(std::move(events));
    return id;
}

bool Client::Connection::Cancel(RequestId id) {
    const Lock lock(mutex);
    return requests.Cancel(id);
}

void Client::Connection::RunThread() noexcept {
    Lock lock(mutex);
    while (!callbacks.Stopped()) {
        if (!callbacks.HasCallbacks())
            Poll();
        if (callbacks.HasCallbacks()) {
            callbacks.CallNext(lock);
            continue;
        }
        const CallbackThread::Wait next =
            callbacks.BeginWait(requests.CompletionExpected(), requests.MillisecondsToDue());
        Wait(lock, next.wake, next.milliseconds, next.forPipe);
        callbacks.EndWait();
    }
}

void Client::Connection::RequireOpen() const {
    if (!stream)
        throw Error(ErrorKind::kServiceGone,
                    std::string("the connection to the service is closed") +
                        (closedBy ? std::string(": ") + closedBy->what() : std::string()));
}

/// Reads first what the service has sent, so that a camera that it has reported gone is refused:
/// the service ends its run when a request names a camera that it does not know.
void Client::Connection::RequireCamera(Lock& lock, CameraId camera, const Deadline& deadline) {
    const bool all = ReadAllAvailable(lock, deadline);
    RequireOpen();
    if (!all)
        throw Error(ErrorKind::kTimedOut,
                    "the request was not sent in time, because the service did not stop sending");
    if (!cameras.Contains(camera))
        throw Error(ErrorKind::kNoSuchCamera, "there is no camera " + std::to_string(camera));
}

/// Sends `message`, a header and its body, with one write: the service handles no header that
/// arrives in pieces, and loses what follows a body that does. Throws only if the request has not
/// been, and will not be, ended in another way.
RequestId Client::Connection::Send(Lock& lock, Request request, std::span<std::byte> message,
                                   HANDLE written, const Deadline& deadline) {
    RequireOpen();
    if (trace)
        request.sent = std::chrono::steady_clock::now();
    const RequestId id = requests.Add(std::move(request));
    SetRequestId(message, id);
    if (trace)
        trace.Sent(message);
    disconnectEvidence.RequestSent(id);
    try {
        PipeWrite write(written);
        write.Start(*stream, message);
        if (write.Pending()) {
            lock.unlock();
            const auto lockAgain = [&lock](void*) { lock.lock(); };
            const std::unique_ptr<void, decltype(lockAgain)> guard(&lock, lockAgain);
            write.Finish(deadline);
        }
    } catch (const Error& error) {
        // If the connection was closed meanwhile, that has ended the request already.
        const bool outstanding = requests.Withdraw(id);
        Close(error);
        if (outstanding)
            throw;
    }
    return id;
}

/// Sends a request and waits for its result. Throws as Send() does. `deadline` is for the sending;
/// the request has its own.
TransferResult Client::Connection::SendAndWait(Lock& lock, Request request,
                                               std::span<std::byte> message,
                                               const Deadline& deadline) {
    CallEvents events = TakeEvents();
    AnswerWaiter waiter(events.answered.get());
    request.waiter = &waiter;
    Send(lock, std::move(request), message, events.written.get(), deadline);
    {
        const CallbackThread::SynchronousCall call(callbacks);
        for (Poll(); !waiter.result; Poll())
            Wait(lock, events.answered.get(), requests.MillisecondsToDue(), true);
    }
    spareEvents.push_back(std::move(events));
    return std::move(*waiter.result);
}

/// Returns when the service has handled everything that was sent before.
void Client::Connection::RoundTrip(Lock& lock, const Deadline& deadline) {
    RoundTripRequest message = MakeRoundTripRequest();
    const TransferResult result = SendAndWait(
        lock, {.type = kTransferNoData, .camera = 0, .due = deadline, .roundTrip = true}, message,
        deadline);
    if (result.error->Kind() != ErrorKind::kRefused)
        throw Error(*result.error);
}

/// Waits, without the lock, for `event` or, with `forPipe`, until something can be read; then reads
/// some of it. May return early.
void Client::Connection::Wait(Lock& lock, HANDLE event, DWORD milliseconds, bool forPipe) {
    const HANDLE events[] = {event, readEvent.get()};
    const DWORD count = stream && forPipe ? 2 : 1;
    lock.unlock();
    const DWORD first = ::WaitForMultipleObjects(count, events, FALSE, milliseconds);
    lock.lock();
    if (first == WAIT_OBJECT_0 + 1 && !ReadAvailable()) {
        ::ResetEvent(readEvent.get());
        // What arrived before the reset signals the event no more. The client's thread may call a
        // handler before it reads again, and another thread may wait for the event meanwhile.
        ReadAvailable();
    }
}

/// Reads some of what the service has sent, then ends the requests whose time has come.
void Client::Connection::Poll() {
    ReadAvailable();
    requests.EndDue();
}

/// Reads some of what the service has sent, and handles the messages. Never waits. False if there
/// was nothing to read.
bool Client::Connection::ReadAvailable() {
    bool any = false;
    try {
        for (int reads = 0; stream && reads < kReadsAtOnce; ++reads) {
            const std::optional<std::size_t> count = stream->Read(reader.Target());
            if (!count)
                break;
            any = true;
            if (std::optional<Message> message = reader.Received(*count))
                Handle(std::move(*message));
        }
    } catch (const Error& error) {
        any = true;
        const bool cutOff = error.Kind() == ErrorKind::kServiceGone && reader.InTheMiddle();
        Close(cutOff ? Error(ErrorKind::kServiceGone,
                             "the service closed the connection in the middle of a message",
                             error.SystemCode())
                     : error);
    } catch (const std::bad_alloc&) {
        Close(Error(ErrorKind::kSystem, "cannot read a message from the service",
                    ERROR_NOT_ENOUGH_MEMORY));
        throw;
    }
    return any;
}

/// Reads everything that the service sent before this call. Releases the lock now and then. False
/// if the deadline passed first.
bool Client::Connection::ReadAllAvailable(Lock& lock, const Deadline& deadline) {
    for (int reads = 0; ReadAvailable() && reads < kMessagesInPipe; reads += kReadsAtOnce) {
        if (deadline.Passed())
            return false;
        lock.unlock();
        std::this_thread::yield();  // to a thread that waits for the lock
        lock.lock();
    }
    return true;
}

void Client::Connection::Handle(Message message) {
    const MessageHeader header = message.header;
    if (trace)
        trace.Received(header, requests.TimeSinceSent(header.requestId));
    switch (header.messageType) {
        case kCameraAttached:
            cameras.Attach(header.cameraId);
            break;
        case kCameraDetached:
            cameras.Detach(header.cameraId);
            requests.CameraGone(header.cameraId);
            break;
        default:
            requests.Answer(std::move(message), cameras.Contains(header.cameraId));
            if (header.messageType == kTransferSucceeded)
                disconnectEvidence.RequestSucceeded(header.requestId);
            break;
    }
}

/// Closes the pipe, and ends everything that is outstanding with `error`.
void Client::Connection::Close(const Error& error) {
    if (!stream)
        return;
    if (trace)
        trace.Closed(error);
    stream.reset();
    closedBy = error;
    requests.EndAll(error);
    cameras.ReportServiceGone(error);
}

Client::Connection::CallEvents Client::Connection::TakeEvents() {
    if (spareEvents.empty())
        return {MakeEvent(true), MakeEvent(false)};
    CallEvents events = std::move(spareEvents.back());
    spareEvents.pop_back();
    return events;
}

}  // namespace orvik
