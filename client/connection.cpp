#include "client/connection.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <new>
#include <system_error>

#include <windows.h>

#include "client/connecting.h"
#include "client/request_id.h"
#include "protocol/message.h"

namespace orvik {

namespace {

/// Messages without a body that the pipe's buffer holds.
constexpr int kMostReads = 65'536 / sizeof(MessageHeader);

/// So few that the deadlines of the threads that wait for the lock meanwhile are kept.
constexpr int kReadsAtOnce = 32;

/// How long after a synchronous call the next one is expected.
constexpr DWORD kMillisecondsBetweenCalls = 10;

using RoundTripRequest = std::array<std::byte, sizeof(MessageHeader)>;

void SetRequestId(std::span<std::byte> message, RequestId id) noexcept {
    std::memcpy(message.data() + offsetof(MessageHeader, requestId), &id, sizeof(id));
}

/// A request without a CDB is refused before any camera is looked up, whichever it names.
RoundTripRequest MakeRoundTripRequest(RequestId id = 0) noexcept {
    const MessageHeader header{kTransferNoData, id, 0, 0};
    RoundTripRequest message{};
    std::memcpy(message.data(), &header, sizeof(header));
    return message;
}

/// A request as it goes over the pipe: header, the CDB in its field, the data. Its number is to be
/// set. Throws kBadArgument for what cannot be sent.
std::vector<std::byte> MakeRequest(TransferType type, CameraId camera,
                                   std::span<const std::byte> cdb,
                                   std::span<const std::byte> data) {
    if (cdb.empty() || cdb.size() > kCdbLimit)
        throw Error(ErrorKind::kBadArgument, "a command has 1 to " + std::to_string(kCdbLimit) +
                                                 " bytes, not " + std::to_string(cdb.size()));
    if (data.size() > kTransferOutLimit)
        throw Error(ErrorKind::kBadArgument,
                    "one request cannot carry " + std::to_string(data.size()) + " bytes");
    const MessageHeader header{type, 0, camera,
                               static_cast<std::uint32_t>(kCdbFieldSize + data.size())};
    std::vector<std::byte> message;
    message.reserve(sizeof(header) + header.bodyLength);
    const auto headerBytes = std::as_bytes(std::span(&header, 1));
    message.insert(message.end(), headerBytes.begin(), headerBytes.end());
    message.insert(message.end(), cdb.begin(), cdb.end());
    message.resize(sizeof(header) + kCdbFieldSize);  // the rest of the field is zero
    message.insert(message.end(), data.begin(), data.end());
    return message;
}

}  // namespace

Client::Connection::Connection(const ConnectOptions& options)
    : pipeName(options.pipe),
      readEvent(MakeEvent(true)),
      wakeThread(MakeEvent(false)) {
    const Deadline deadline(options.timeout);
    stream.emplace(ConnectToService(options, deadline), readEvent.get());
    // The notifications of the cameras present are ahead of the answer to this. If none comes in
    // time, the service finds this request when it goes on, and then nobody to answer, which it
    // takes for a client that has left.
    Lock lock(mutex);
    RoundTrip(lock, deadline);
}

void Client::Connection::StartThread() {
    try {
        thread = std::thread([self = shared_from_this()] { self->RunThread(); });
    } catch (const std::system_error& error) {
        throw Error(ErrorKind::kSystem, std::string("cannot start a thread: ") + error.what());
    }
}

void Client::Connection::Leave() noexcept {
    const Deadline deadline(kLeaveTimeout);
    bool inHandler = false;
    {
        Lock lock(mutex);
        left = true;
        subscribers.clear();
        deliveries.clear();
        for (auto& [id, request] : requests)
            request.completion = nullptr;
        WakeThread();
        try {
            if (stream && !serviceReads)
                WaitUntilServiceReads(lock, deadline);
        } catch (const std::exception&) {
            // The service has gone, or hangs and had its time.
        }
        stream.reset();
        inHandler = delivering;
    }
    if (!thread.joinable())
        return;
    // Neither waits for a handler: that may be waiting for the caller, or be the caller.
    if (inHandler)
        thread.detach();
    else
        thread.join();
}

std::vector<CameraId> Client::Connection::Cameras() {
    Lock lock(mutex);
    ReadAllSent(lock, Deadline(kTransferTimeout));
    RequireOpen();
    return cameras;
}

void Client::Connection::RoundTrip(const Deadline& deadline) {
    Lock lock(mutex);
    RoundTrip(lock, deadline);
}

void Client::Connection::Subscribe(const std::shared_ptr<Subscription::State>& subscriber) {
    const Lock lock(mutex);
    if (!stream) {
        Queue({.subscriber = subscriber, .event = {Event::Kind::kServiceGone, 0}});
        return;
    }
    for (const CameraId camera : cameras)
        Queue({.subscriber = subscriber, .event = {Event::Kind::kCameraAttached, camera}});
    std::erase_if(subscribers, [](const auto& other) { return other.expired(); });
    subscribers.push_back(subscriber);
}

std::vector<std::byte> Client::Connection::Transfer(TransferType type, CameraId camera,
                                                    std::span<const std::byte> cdb,
                                                    std::span<const std::byte> data,
                                                    const Deadline& deadline) {
    std::vector<std::byte> message = MakeRequest(type, camera, cdb, data);
    Lock lock(mutex);
    RequireCamera(lock, camera, deadline);
    TransferResult result = Ask(lock, {.type = type, .camera = camera}, message, deadline);
    if (result.error)
        throw Error(*result.error);
    return std::move(result.data);
}

RequestId Client::Connection::StartTransfer(TransferType type, CameraId camera,
                                            std::span<const std::byte> cdb,
                                            std::span<const std::byte> data,
                                            Completion completion) {
    if (!completion)
        throw Error(ErrorKind::kBadArgument, "there is nobody to tell of the answer");
    std::vector<std::byte> message = MakeRequest(type, camera, cdb, data);
    const Deadline deadline(kTransferTimeout);
    Lock lock(mutex);
    RequireCamera(lock, camera, deadline);
    CallEvents events = TakeEvents();
    const RequestId id =
        Send(lock, {.type = type, .camera = camera, .completion = std::move(completion)}, message,
             events.written.get(), deadline);
    if (threadWaits == ThreadWaits::kForALittle || threadWaits == ThreadWaits::kUntilWoken)
        WakeThread();
    spareEvents.push_back(std::move(events));
    return id;
}

bool Client::Connection::Cancel(RequestId id) {
    const Lock lock(mutex);
    const auto found = requests.find(id);
    if (found == requests.end() || !found->second.completion)
        return false;
    End(found->second, {.error = Error(ErrorKind::kCancelled, "the request was cancelled")});
    return true;
}

void Client::Connection::RunThread() noexcept {
    Lock lock(mutex);
    while (!left) {
        if (deliveries.empty())
            TakeInWhatHasCome();
        if (!deliveries.empty()) {
            Delivery next = std::move(deliveries.front());
            deliveries.pop_front();
            delivering = true;
            lock.unlock();
            Deliver(std::move(next));
            lock.lock();
            delivering = false;
            continue;
        }
        WaitForDeliveries(lock);
    }
}

/// To be woken for each message, only to find that a synchronous call has taken it, costs that call
/// a fifth of its time. So the thread leaves the pipe to these calls as long as one follows the
/// other, unless a completion is waited for too.
void Client::Connection::WaitForDeliveries(Lock& lock) {
    const bool called = std::exchange(callsSeen, calls) != calls;
    const bool forCompletion = std::any_of(requests.begin(), requests.end(), [](const auto& entry) {
        return entry.second.completion != nullptr;
    });
    DWORD milliseconds = INFINITE;
    if (!forCompletion && called) {
        threadWaits = ThreadWaits::kForALittle;
        milliseconds = kMillisecondsBetweenCalls;
    } else if (!forCompletion && callers != 0) {
        threadWaits = ThreadWaits::kUntilWoken;
    } else {
        threadWaits = ThreadWaits::kForThePipe;
    }
    Wait(lock, wakeThread.get(), milliseconds, threadWaits == ThreadWaits::kForThePipe);
    threadWaits = ThreadWaits::kNot;
}

void Client::Connection::Deliver(Delivery delivery) {
    if (delivery.completion) {
        delivery.completion(std::move(delivery.result));
        return;
    }
    const std::shared_ptr<Subscription::State> subscriber = delivery.subscriber.lock();
    if (subscriber)
        subscriber->handler(delivery.event);
}

void Client::Connection::RequireOpen() const {
    if (!stream)
        throw Error(ErrorKind::kServiceGone,
                    std::string("the connection to the service is closed") +
                        (closedBy ? std::string(": ") + closedBy->what() : std::string()));
}

/// What has come is taken in first, so that a camera is refused that has been reported gone: the
/// service ends its run when it is asked for one that it does not know.
void Client::Connection::RequireCamera(Lock& lock, CameraId camera, const Deadline& deadline) {
    const bool all = ReadAllSent(lock, deadline);
    RequireOpen();
    if (!all)
        throw Error(ErrorKind::kTimedOut,
                    "the service sent messages for so long that the request "
                    "was not sent in time");
    if (std::find(cameras.begin(), cameras.end(), camera) == cameras.end())
        throw Error(ErrorKind::kNoSuchCamera, "there is no camera " + std::to_string(camera));
}

/// Sends `message`, a header and its body, with one write: the service handles no header that
/// comes in pieces, and loses what follows a body in pieces. Throws only if `request` was not, and
/// will not be, ended in any other way.
RequestId Client::Connection::Send(Lock& lock, Request request, std::span<std::byte> message,
                                   HANDLE written, const Deadline& deadline) {
    RequireOpen();
    const RequestId id = NextRequestId(newestRequest, requests);
    SetRequestId(message, id);
    requests.emplace(id, std::move(request));
    newestRequest = id;
    serviceReads = false;
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
        const bool outstanding = requests.erase(id) != 0;
        Close(error);
        if (outstanding)
            throw;
    }
    return id;
}

/// Sends a request and waits for its answer. Throws as Send() does, and kTimedOut; then the answer
/// is dropped when it comes.
TransferResult Client::Connection::Ask(Lock& lock, Request request, std::span<std::byte> message,
                                       const Deadline& deadline) {
    CallEvents events = TakeEvents();
    Waiter waiter{.thread = std::this_thread::get_id(), .answered = events.answered.get()};
    request.waiter = &waiter;
    const RequestId id = Send(lock, std::move(request), message, events.written.get(), deadline);
    ++calls;
    ++callers;
    for (TakeInWhatHasCome(); !waiter.result && !deadline.Passed(); TakeInWhatHasCome())
        Wait(lock, events.answered.get(), deadline.Left(), true);
    --callers;
    if (callers == 0 && threadWaits == ThreadWaits::kUntilWoken)
        WakeThread();
    spareEvents.push_back(std::move(events));
    if (waiter.result)
        return std::move(*waiter.result);
    requests.at(id).waiter = nullptr;
    throw Error(ErrorKind::kTimedOut, "no answer came in time");
}

/// Waits for `event` or, if `forPipe`, for what comes from the service, whichever is first. Returns
/// early now and then.
void Client::Connection::Wait(Lock& lock, HANDLE event, DWORD milliseconds, bool forPipe) {
    const HANDLE events[] = {event, readEvent.get()};
    const DWORD count = stream && forPipe ? 2 : 1;
    lock.unlock();
    const DWORD first = ::WaitForMultipleObjects(count, events, FALSE, milliseconds);
    lock.lock();
    if (first == WAIT_OBJECT_0 + 1 && !TakeInWhatHasCome()) {
        ::ResetEvent(readEvent.get());
        TakeInWhatHasCome();  // what has come in between set the event in vain
    }
}

/// Returns when the service has handled all that was sent before.
void Client::Connection::RoundTrip(Lock& lock, const Deadline& deadline) {
    RoundTripRequest message = MakeRoundTripRequest();
    const TransferResult result =
        Ask(lock, {.type = kTransferNoData, .camera = 0, .roundTrip = true}, message, deadline);
    if (result.error->Kind() != ErrorKind::kRefused)
        throw Error(*result.error);
}

/// See above. The caller closes the connection then.
void Client::Connection::WaitUntilServiceReads(Lock& lock, const Deadline& deadline) {
    if (requests.contains(newestRequest))
        RoundTrip(lock, deadline);
    OneMoreConnection other(pipeName, deadline);
    if (other.nextIsWaiting)
        return;
    // The service hangs. If it ever goes on, its next reads will meet these, and then its answers
    // will find nobody, which it takes for a client that has left.
    const RoundTripRequest last = MakeRoundTripRequest(NextRequestId(newestRequest, requests));
    const CallEvents events = TakeEvents();
    PipeWrite first(events.written.get());
    first.Start(*stream, last);
    first.Finish(deadline);
    if (!other.pipe)
        return;
    const PipeStream otherStream(std::move(other.pipe), readEvent.get());
    PipeWrite second(events.written.get());
    second.Start(otherStream, last);
    second.Finish(deadline);
}

/// Reads what the service sent before this call, and gives up the lock now and then. False if the
/// deadline passed first.
bool Client::Connection::ReadAllSent(Lock& lock, const Deadline& deadline) {
    for (int reads = 0; TakeInWhatHasCome() && reads < kMostReads; reads += kReadsAtOnce) {
        if (deadline.Passed())
            return false;
        lock.unlock();
        std::this_thread::yield();  // to those that wait for the lock
        lock.lock();
    }
    return true;
}

/// Takes in some of what has come from the service. Never waits. False if nothing has come.
bool Client::Connection::TakeInWhatHasCome() {
    bool any = false;
    try {
        for (int reads = 0; stream && reads < kReadsAtOnce; ++reads) {
            const std::optional<std::size_t> count = stream->Read(reader.Target());
            if (!count)
                break;
            any = true;
            if (std::optional<Message> message = reader.Received(*count))
                TakeIn(std::move(*message));
        }
    } catch (const Error& error) {
        any = true;
        const bool cutOff = error.Kind() == ErrorKind::kServiceGone && reader.InTheMiddle();
        Close(cutOff ? Error(ErrorKind::kServiceGone,
                             "the service closed the connection in the middle of a message",
                             error.SystemCode())
                     : error);
    } catch (const std::bad_alloc&) {
        Close(
            Error(ErrorKind::kSystem, "there is no memory for a message", ERROR_NOT_ENOUGH_MEMORY));
        throw;
    }
    return any;
}

void Client::Connection::TakeIn(Message message) {
    const CameraId camera = message.header.cameraId;
    const bool known = std::find(cameras.begin(), cameras.end(), camera) != cameras.end();
    switch (message.header.messageType) {
        case kCameraAttached:
            if (!known) {
                cameras.push_back(camera);
                TellSubscribers({Event::Kind::kCameraAttached, camera});
            }
            break;
        case kCameraDetached:
            if (known) {
                std::erase(cameras, camera);
                TellSubscribers({Event::Kind::kCameraDetached, camera});
            }
            break;
        default:
            TakeInAnswer(std::move(message));
            break;
    }
}

void Client::Connection::TakeInAnswer(Message message) {
    const MessageHeader header = message.header;
    const bool succeeded = header.messageType == kTransferSucceeded;
    const auto found = requests.find(header.requestId);
    if (found == requests.end() || found->second.camera != header.cameraId)
        throw Error(ErrorKind::kBadAnswer, "the service answered what was not asked, request " +
                                               std::to_string(header.requestId));
    Request& request = found->second;
    if (succeeded && (request.roundTrip || (header.bodyLength != 0 && request.type != kTransferIn)))
        throw Error(ErrorKind::kBadAnswer, "the service's answer does not fit request " +
                                               std::to_string(header.requestId));
    if (succeeded && header.requestId == newestRequest)
        serviceReads = true;
    TransferResult result{.data = std::move(message.body)};
    if (!succeeded)
        result.error.emplace(ErrorKind::kRefused,
                             "the command failed on camera " + std::to_string(header.cameraId));
    End(request, std::move(result));
    requests.erase(found);
}

/// Hands the result to whoever waits for it. What comes later is dropped.
void Client::Connection::End(Request& request, TransferResult result) {
    if (Waiter* const waiter = std::exchange(request.waiter, nullptr)) {
        waiter->result = std::move(result);
        if (waiter->thread != std::this_thread::get_id())
            ::SetEvent(waiter->answered);
    } else if (request.completion) {
        Queue({.completion = std::exchange(request.completion, nullptr),
               .result = std::move(result)});
    }
}

void Client::Connection::TellSubscribers(const Event& event) {
    for (const std::weak_ptr<Subscription::State>& subscriber : subscribers)
        Queue({.subscriber = subscriber, .event = event});
}

void Client::Connection::Queue(Delivery delivery) {
    deliveries.push_back(std::move(delivery));
    if (threadWaits != ThreadWaits::kNot)
        WakeThread();
}

void Client::Connection::WakeThread() {
    threadWaits = ThreadWaits::kNot;
    ::SetEvent(wakeThread.get());
}

/// Ends everything that is outstanding with `error`.
void Client::Connection::Close(const Error& error) {
    if (!stream)
        return;
    stream.reset();
    closedBy = error;
    for (auto& [id, request] : requests)
        End(request, {.error = error});
    requests.clear();
    TellSubscribers({Event::Kind::kServiceGone, 0});
    subscribers.clear();
}

Client::Connection::CallEvents Client::Connection::TakeEvents() {
    if (spareEvents.empty())
        return {MakeEvent(true), MakeEvent(false)};
    CallEvents events = std::move(spareEvents.back());
    spareEvents.pop_back();
    return events;
}

}  // namespace orvik
