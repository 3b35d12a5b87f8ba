#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "client/deadline.h"
#include "client/message_reader.h"
#include "client/pipe_stream.h"
#include "device/transfer_request.h"
#include "orvik/client.h"
#include "windows/unique_handle.h"

namespace orvik {

struct Subscription::State {
    explicit State(EventHandler newHandler) : handler(std::move(newHandler)) {}

    const EventHandler handler;
};

/// What a Client shares with its thread: the pipe, what has been asked and not been answered, the
/// cameras announced, and what is still to be delivered.
///
/// Nobody has the reading for a job: whoever waits for something waits for the pipe, and takes in
/// what has come, also for the others. So a synchronous call has no thread to wait for but itself,
/// and it doesn't matter who is in a handler. The client's thread waits for the pipe when nobody
/// else does.
///
/// The service ends its run if its next read of a header meets a client that has left. It starts
/// that read right after it has handled a request. So a client must not leave before this has
/// happened, which it can't see. What it can see:
///
/// - kTransferSucceeded always comes from a later turn of the service's only thread than the one
///   that read the request. So when the newest request succeeded, the next read is pending.
/// - kTransferFailed may be written within the turn that read the request, before the next read.
///   Here another connection helps. The service has one instance waiting for a client at any time,
///   and opens the next only in a later turn, after it has started to read from the client that
///   took the last one. So when this client takes an instance and then sees another one waiting,
///   that later turn has come, and both its connections can be closed.
///
/// Thread: any.
class Client::Connection : public std::enable_shared_from_this<Client::Connection> {
public:
    /// Connects. Throws as Client's constructor does.
    explicit Connection(const ConnectOptions& options);

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Starts the client's thread, which shares the ownership. Once. Throws Error kSystem.
    void StartThread();

    /// What ~Client() says. Once.
    void Leave() noexcept;

    std::vector<CameraId> Cameras();
    void RoundTrip(const Deadline& deadline);
    void Subscribe(const std::shared_ptr<Subscription::State>& subscriber);
    std::vector<std::byte> Transfer(TransferType type, CameraId camera,
                                    std::span<const std::byte> cdb, std::span<const std::byte> data,
                                    const Deadline& deadline);
    RequestId StartTransfer(TransferType type, CameraId camera, std::span<const std::byte> cdb,
                            std::span<const std::byte> data, Completion completion);
    bool Cancel(RequestId id);

private:
    using Lock = std::unique_lock<std::mutex>;

    /// What one call has to itself while it waits.
    struct CallEvents {
        UniqueHandle written;
        UniqueHandle answered;  // by another thread
    };

    /// A call that waits for the answer to its request.
    struct Waiter {
        std::thread::id thread;
        HANDLE answered;
        std::optional<TransferResult> result{};
    };

    /// With neither a waiter nor a completion its answer is dropped.
    struct Request {
        TransferType type;
        CameraId camera;
        bool roundTrip = false;    // asks for nothing and so is always refused
        Waiter* waiter = nullptr;  // not owned; in its call
        Completion completion{};
    };

    /// A call that the client's thread is to make: of a completion, or else of a subscriber.
    struct Delivery {
        Completion completion{};
        TransferResult result{};
        std::weak_ptr<Subscription::State> subscriber{};
        Event event{};
    };

    /// Whether the client's thread is to be woken, and for what.
    enum class ThreadWaits {
        kNot,         // it looks for deliveries, and for all below, before it waits again
        kForThePipe,  // for deliveries, and for the pipe
        kForALittle,  // for deliveries, until a little time has passed
        kUntilWoken,  // for deliveries, or that no synchronous call waits any more
    };

    // All but those two are called with the lock held.
    void RunThread() noexcept;
    static void Deliver(Delivery delivery);
    void WaitForDeliveries(Lock& lock);
    void WakeThread();

    void RequireOpen() const;
    void RequireCamera(Lock& lock, CameraId camera, const Deadline& deadline);
    RequestId Send(Lock& lock, Request request, std::span<std::byte> message, HANDLE written,
                   const Deadline& deadline);
    TransferResult Ask(Lock& lock, Request request, std::span<std::byte> message,
                       const Deadline& deadline);
    void Wait(Lock& lock, HANDLE event, DWORD milliseconds, bool forPipe);
    void RoundTrip(Lock& lock, const Deadline& deadline);
    void WaitUntilServiceReads(Lock& lock, const Deadline& deadline);

    bool TakeInWhatHasCome();
    bool ReadAllSent(Lock& lock, const Deadline& deadline);
    void TakeIn(Message message);
    void TakeInAnswer(Message message);
    void End(Request& request, TransferResult result);
    void TellSubscribers(const Event& event);
    void Queue(Delivery delivery);
    void Close(const Error& error);

    CallEvents TakeEvents();

    const std::wstring pipeName;
    const UniqueHandle readEvent;   // of `stream`
    const UniqueHandle wakeThread;  // there is something to deliver, or the client leaves
    std::thread thread;             // the client's

    std::mutex mutex;                       // of all below
    MessageReader reader;                   // before `stream`, which may be reading into it
    std::optional<PipeStream> stream;       // none once an error has closed it
    std::optional<Error> closedBy;          // that error
    std::vector<CameraId> cameras;          // in the order announced
    std::map<RequestId, Request> requests;  // until they are answered
    RequestId newestRequest = 0;
    bool serviceReads = false;  // surely its next read is pending
    std::vector<CallEvents> spareEvents;
    std::vector<std::weak_ptr<Subscription::State>> subscribers;
    std::deque<Delivery> deliveries;
    ThreadWaits threadWaits = ThreadWaits::kNot;
    std::size_t callers = 0;      // synchronous calls that wait for an answer
    std::uint64_t calls = 0;      // that have waited for one, and do
    std::uint64_t callsSeen = 0;  // by the client's thread
    bool delivering = false;
    bool left = false;
};

}  // namespace orvik
