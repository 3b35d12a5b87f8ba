#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include "client/callback_thread.h"
#include "client/deadline.h"
#include "client/device_hints.h"
#include "client/event.h"
#include "client/service_start_notice.h"
#include "orvik/client.h"
#include "orvik/persistent_client.h"
#include "windows/unique_handle.h"

namespace orvik {

/// Everything that a PersistentClient shares with its threads. docs/client-internals.md has
/// the states and the threads.
///
/// Thread: any; `mutex` protects the members below it and is never held during a call that waits.
class PersistentClient::State : public std::enable_shared_from_this<PersistentClient::State> {
public:
    /// One connection. A call in progress and an outstanding request keep it alive, also when
    /// another one has replaced it. Its last owner disconnects it.
    struct Link {
        Link(std::shared_ptr<State> owner, const ConnectOptions& options);
        ~Link();

        Link(const Link&) = delete;
        Link& operator=(const Link&) = delete;

        const std::shared_ptr<State> state;
        std::optional<Client> client;  // none once the PersistentClient has been destroyed
        Subscription subscription;

        // With the state's mutex.
        const std::uint64_t number;
        std::optional<Error> closedBy;
        bool hears = false;  // has received a notification, so it is the main communicator
        std::map<CameraId, std::uint64_t> confirmed;  // the value of `removals` at that time
    };

    explicit State(const ConnectOptions& connectOptions) : options(connectOptions) {
        options.canceller = {};  // End() cancels it, and other objects may share the caller's
    }

    /// Starts the threads. Once. Throws Error kSystem.
    void Start();

    /// Does what ~PersistentClient() documents. Once; nothing else may be called afterwards.
    void End() noexcept;

    std::vector<Camera> Cameras() const;
    void Subscribe(const std::shared_ptr<const CameraEventHandler>& subscriber);

    /// The connection for a request that names `camera`. Confirms first, if necessary, that the
    /// service knows the camera. Throws Error as PersistentClient's functions do.
    std::shared_ptr<Link> LinkFor(const Camera& camera, const Deadline& deadline);

    /// The connection with that number, if it is still the current one or has requests outstanding.
    std::shared_ptr<Link> FindLink(std::uint64_t number);

    /// A completion that is called on the handler thread, and keeps `link` alive until then.
    Completion OnHandlerThread(const std::shared_ptr<Link>& link, Completion completion);

private:
    using Lock = std::unique_lock<std::mutex>;
    using Clock = std::chrono::steady_clock;

    void RunHandlers() noexcept;
    void RunConnecting() noexcept;

    std::optional<Error> TryConnect() noexcept;
    void Pause(ErrorKind kind, std::chrono::milliseconds time) noexcept;
    void Check(const std::shared_ptr<Link>& link, const Deadline& deadline);
    void Adopt(const std::shared_ptr<Link>& link, const std::vector<CameraId>& present,
               bool sameRun);
    void OnEvent(const std::shared_ptr<Link>& link, const Event& event);
    void OnHint(DeviceHints::Change change);

    // With the mutex.
    void Attach(CameraId camera);
    void Detach(const Camera& camera);
    void Disconnected(const Error& error);
    void Require(const Camera& camera) const;
    void PostToAll(const CameraEvent& event);
    void Post(const std::weak_ptr<const CameraEventHandler>& subscriber, const CameraEvent& event);

    ConnectOptions options;
    std::optional<DeviceHints> hints;
    std::thread connecting;
    const UniqueHandle pauseEnd = MakeEvent(false);
    ServiceStartNotice startNotice;  // of the connecting thread

    // Held while a connection is made or checked; locked before `mutex`.
    std::timed_mutex checking;

    mutable std::mutex mutex;
    std::condition_variable changed;  // for the connecting thread, and for End()
    bool ending = false;
    CallbackThread callbacks;
    std::thread::id handlerThread;
    bool handling = false;  // a callback is in progress
    std::vector<std::weak_ptr<const CameraEventHandler>> subscribers;
    std::shared_ptr<Link> current;  // none: not connected
    std::optional<Error> reason;    // why not; none before the first attempt has failed
    std::uint64_t generation = 0;
    std::vector<Camera> cameras;            // all of this generation
    std::set<CameraId> announced;           // in this generation; none is attached twice
    std::uint64_t removals = 0;             // hints of removed drives
    std::vector<Clock::time_point> checks;  // when to look which cameras are present, sorted
    std::vector<std::weak_ptr<Link>> links;
    std::uint64_t newestLink = 0;
    int livingLinks = 0;
};

}  // namespace orvik
