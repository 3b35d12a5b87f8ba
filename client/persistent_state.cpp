#include "client/persistent_state.h"

#include <algorithm>
#include <string>
#include <system_error>
#include <utility>

#include <windows.h>

#include "client/connect_canceller.h"

namespace orvik {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kFirstPause = 250ms;
constexpr std::chrono::milliseconds kLongestPause = 5s;

/// Windows may report a drive before the service has seen it.
constexpr std::chrono::milliseconds kChecksAfterHint[] = {500ms, 2s, 5s};

bool Contains(const std::vector<CameraId>& cameras, CameraId camera) {
    return std::find(cameras.begin(), cameras.end(), camera) != cameras.end();
}

}  // namespace

PersistentClient::State::Link::Link(std::shared_ptr<State> owner, const ConnectOptions& options)
    : state(std::move(owner)),
      client(std::in_place, options),
      number([this] {
          const Lock lock(state->mutex);
          ++state->livingLinks;
          return ++state->newestLink;
      }()) {}

PersistentClient::State::Link::~Link() {
    client.reset();
    const Lock lock(state->mutex);
    --state->livingLinks;
    state->changed.notify_all();
}

void PersistentClient::State::Start() {
    callbacks.Start([self = shared_from_this()] { self->RunHandlers(); });
    try {
        hints.emplace([this](DeviceHints::Change change) { OnHint(change); });
        connecting = std::thread([this] { RunConnecting(); });
    } catch (const std::system_error& error) {
        End();
        throw Error(ErrorKind::kSystem,
                    std::string("cannot start a thread that connects: ") + error.what());
    } catch (...) {
        End();
        throw;
    }
}

void PersistentClient::State::End() noexcept {
    hints.reset();
    options.canceller.Cancel();
    {
        const Lock lock(mutex);
        ending = true;
        callbacks.Stop();
        subscribers.clear();
        changed.notify_all();
        ::SetEvent(pauseEnd.get());
    }
    if (connecting.joinable())
        connecting.join();
    if (Lock lock(mutex); handlerThread != std::this_thread::get_id())
        changed.wait(lock, [this] { return !handling; });
    // Now no other call is in progress.
    std::vector<std::weak_ptr<Link>> last;
    std::shared_ptr<Link> connected;
    {
        const Lock lock(mutex);
        last.swap(links);
        connected.swap(current);
    }
    connected.reset();
    // The completion of an outstanding request owns its connection, and the connection owns the
    // request. This ends both.
    for (const std::weak_ptr<Link>& one : last) {
        if (const std::shared_ptr<Link> link = one.lock())
            link->client.reset();
    }
    Lock lock(mutex);
    changed.wait(lock, [this] { return livingLinks == 0; });
    callbacks.JoinOrDetach(lock);
}

std::vector<Camera> PersistentClient::State::Cameras() const {
    const Lock lock(mutex);
    return cameras;
}

void PersistentClient::State::Subscribe(
    const std::shared_ptr<const CameraEventHandler>& subscriber) {
    using Kind = CameraEvent::Kind;
    const Lock lock(mutex);
    if (current)
        Post(subscriber, {.kind = Kind::kConnected});
    else if (reason)
        Post(subscriber, {.kind = Kind::kDisconnected, .error = reason});
    for (const Camera& camera : cameras)
        Post(subscriber, {.kind = Kind::kCameraAttached, .camera = camera});
    std::erase_if(subscribers, [](const auto& other) { return other.expired(); });
    subscribers.push_back(subscriber);
}

std::shared_ptr<PersistentClient::State::Link> PersistentClient::State::LinkFor(
    const Camera& camera, const Deadline& deadline) {
    std::shared_ptr<Link> link;  // outlives the lock, because ~Link() takes it
    Lock lock(mutex);
    Require(camera);
    const std::uint64_t removalsBefore = removals;
    const auto confirmed = current->confirmed.find(camera.id);
    if (confirmed != current->confirmed.end() && confirmed->second == removals)
        return current;
    link = current;
    lock.unlock();
    Check(link, deadline);
    lock.lock();
    Require(camera);
    current->confirmed[camera.id] = removalsBefore;
    return current;
}

std::shared_ptr<PersistentClient::State::Link> PersistentClient::State::FindLink(
    std::uint64_t number) {
    std::vector<std::shared_ptr<Link>> living;  // outlives the lock, because ~Link() takes it
    const Lock lock(mutex);
    for (const std::weak_ptr<Link>& one : links) {
        living.push_back(one.lock());
        if (living.back() && living.back()->number == number)
            return living.back();
    }
    return nullptr;
}

Completion PersistentClient::State::OnHandlerThread(const std::shared_ptr<Link>& link,
                                                    Completion completion) {
    if (!completion)
        return nullptr;  // refused by the Client
    return [link, completion = std::move(completion)](TransferResult result) {
        State& owner = *link->state;
        const Lock lock(owner.mutex);
        if (owner.ending)
            return;
        owner.callbacks.Post(
            [completion, result = std::move(result)]() mutable { completion(std::move(result)); });
    };
}

/// The handler thread.
void PersistentClient::State::RunHandlers() noexcept {
    Lock lock(mutex);
    handlerThread = std::this_thread::get_id();
    while (!callbacks.Stopped()) {
        if (callbacks.HasCallbacks()) {
            handling = true;
            callbacks.CallNext(lock);
            handling = false;
            changed.notify_all();
            continue;
        }
        const CallbackThread::Wait next = callbacks.BeginWait(true, INFINITE);
        lock.unlock();
        ::WaitForSingleObject(next.wake, next.milliseconds);
        lock.lock();
        callbacks.EndWait();
    }
}

/// The connecting thread: connects, and makes the checks that hints ask for.
void PersistentClient::State::RunConnecting() noexcept {
    Lock lock(mutex);
    std::chrono::milliseconds pause = kFirstPause;
    while (!ending) {
        if (!current) {
            ::ResetEvent(pauseEnd.get());
            lock.unlock();
            const std::optional<Error> error = TryConnect();
            lock.lock();
            if (!error || ending) {
                pause = kFirstPause;
                continue;
            }
            Disconnected(*error);
            lock.unlock();
            Pause(error->Kind(), pause);
            lock.lock();
            pause = std::min(pause * 2, kLongestPause);
        } else if (current->closedBy) {
            std::shared_ptr<Link> link = std::exchange(current, nullptr);
            Disconnected(*link->closedBy);
            lock.unlock();
            link.reset();
            lock.lock();
        } else if (checks.empty()) {
            changed.wait(lock);
        } else if (Clock::now() < checks.front()) {
            changed.wait_until(lock, Clock::time_point(checks.front()));
        } else {
            checks.erase(checks.begin());
            std::shared_ptr<Link> link = current;
            lock.unlock();
            try {
                Check(link, Deadline(options.timeout));
            } catch (const std::exception&) {
                // The next check, or the end of the connection, brings more.
            }
            link.reset();
            lock.lock();
        }
    }
}

/// Connects. The error if that fails.
std::optional<Error> PersistentClient::State::TryConnect() noexcept {
    try {
        const std::lock_guard alone(checking);
        const auto link = std::make_shared<Link>(shared_from_this(), options);
        Adopt(link, link->client->Cameras(), false);
        return {};
    } catch (const Error& error) {
        return error;
    } catch (const std::bad_alloc&) {
        return Error(ErrorKind::kSystem, "cannot connect to the service", ERROR_NOT_ENOUGH_MEMORY);
    }
}

/// The time between two attempts to connect.
void PersistentClient::State::Pause(ErrorKind kind, std::chrono::milliseconds time) noexcept {
    // Only when the service does not run: otherwise the notice would come at once, each time.
    if (options.checkServer && (kind == ErrorKind::kStopped || kind == ErrorKind::kStarting))
        startNotice.Wait(pauseEnd.get(), time);
    else
        ::WaitForSingleObject(pauseEnd.get(), static_cast<DWORD>(time.count()));
}

/// Makes sure that this object knows the cameras present. If `link` has not yet heard anything from
/// the service, it asks on a second connection. If that one knows of a camera that has come or gone
/// and `link` does not, `link` is deaf, and the second connection replaces it.
/// Throws what connecting and Client::RoundTrip() throw.
void PersistentClient::State::Check(const std::shared_ptr<Link>& link, const Deadline& deadline) {
    const std::unique_lock alone(checking, deadline.TimeLeft());
    if (!alone)
        throw Error(ErrorKind::kTimedOut, "the service did not answer in time");
    bool hears = false;
    {
        const Lock lock(mutex);
        if (current != link)
            return;  // checked meanwhile, or closed
        hears = link->hears;
    }
    if (hears) {
        link->client->RoundTrip(deadline.TimeLeft());
        return;
    }
    const std::vector<CameraId> before = link->client->Cameras();
    ConnectOptions second = options;
    second.timeout = std::min(options.timeout, deadline.TimeLeft());
    const auto other = std::make_shared<Link>(shared_from_this(), second);
    const std::vector<CameraId> present = other->client->Cameras();
    // After this, `link` has received everything that the service sent it before it announced the
    // cameras of `present`. It also shows that the service has not been started anew meanwhile.
    link->client->RoundTrip(deadline.TimeLeft());
    const std::vector<CameraId> after = link->client->Cameras();
    const bool missed = std::any_of(present.begin(), present.end(),
                                    [&](CameraId camera) { return !Contains(after, camera); }) ||
                        std::any_of(before.begin(), before.end(), [&](CameraId camera) {
                            return !Contains(present, camera) && Contains(after, camera);
                        });
    if (missed)
        Adopt(other, present, true);
}

/// Makes `link`, which knows the cameras `present`, the current connection. With `sameRun`, the
/// service has not been started anew since the one before.
void PersistentClient::State::Adopt(const std::shared_ptr<Link>& link,
                                    const std::vector<CameraId>& present, bool sameRun) {
    std::shared_ptr<Link> former;
    {
        const Lock lock(mutex);
        // If the connection has been closed during the check, the connecting thread connects anew.
        if (ending || (sameRun && !current))
            return;
        former = std::exchange(current, link);
        std::erase_if(links, [](const auto& other) { return other.expired(); });
        links.push_back(link);
        reason.reset();
        if (!sameRun) {
            ++generation;
            announced.clear();
            PostToAll({.kind = CameraEvent::Kind::kConnected});
        }
        for (const Camera& camera : std::vector<Camera>(cameras)) {
            if (!Contains(present, camera.id))
                Detach(camera);
        }
        for (const CameraId camera : present)
            Attach(camera);
    }
    link->subscription = link->client->Subscribe([weak = std::weak_ptr(link)](const Event& event) {
        if (const std::shared_ptr<Link> from = weak.lock())
            from->state->OnEvent(from, event);
    });
    // Notifications that arrived before the subscription began. Those that a camera was attached
    // come once more.
    const std::vector<CameraId> now = link->client->Cameras();
    for (const CameraId camera : present) {
        if (!Contains(now, camera))
            OnEvent(link, {Event::Kind::kCameraDetached, camera});
    }
}

void PersistentClient::State::OnEvent(const std::shared_ptr<Link>& link, const Event& event) {
    const Lock lock(mutex);
    if (current != link || ending)
        return;
    switch (event.kind) {
        case Event::Kind::kCameraAttached:
            // A new subscription repeats the cameras that this object knows.
            if (announced.contains(event.camera))
                return;
            link->hears = true;
            Attach(event.camera);
            break;
        case Event::Kind::kCameraDetached:
            link->hears = true;
            Detach({generation, event.camera});
            break;
        case Event::Kind::kServiceGone:
            link->closedBy = event.error;
            break;
    }
    checks.clear();
    changed.notify_all();
}

void PersistentClient::State::OnHint(DeviceHints::Change change) {
    const Lock lock(mutex);
    if (change == DeviceHints::Change::kRemoved)
        ++removals;
    ::SetEvent(pauseEnd.get());
    if (!current || !current->hears) {
        // The earliest check stays, so that a series of hints does not put it off.
        if (!checks.empty())
            checks.resize(1);
        for (const std::chrono::milliseconds time : kChecksAfterHint)
            checks.push_back(Clock::now() + time);
        std::sort(checks.begin(), checks.end());
    }
    changed.notify_all();
}

void PersistentClient::State::Attach(CameraId camera) {
    if (!announced.insert(camera).second)
        return;
    cameras.push_back({generation, camera});
    PostToAll({.kind = CameraEvent::Kind::kCameraAttached, .camera = cameras.back()});
}

void PersistentClient::State::Detach(const Camera& camera) {
    if (std::erase(cameras, camera) != 0)
        PostToAll({.kind = CameraEvent::Kind::kCameraDetached, .camera = camera});
}

void PersistentClient::State::Disconnected(const Error& error) {
    for (const Camera& camera : std::vector<Camera>(cameras))
        Detach(camera);
    if (!reason || reason->Kind() != error.Kind())
        PostToAll({.kind = CameraEvent::Kind::kDisconnected, .error = error});
    reason = error;
}

void PersistentClient::State::Require(const Camera& camera) const {
    if (std::find(cameras.begin(), cameras.end(), camera) == cameras.end())
        throw Error(ErrorKind::kNoSuchCamera,
                    "camera " + std::to_string(camera.id) + " is not attached");
}

void PersistentClient::State::PostToAll(const CameraEvent& event) {
    for (const std::weak_ptr<const CameraEventHandler>& subscriber : subscribers)
        Post(subscriber, event);
}

void PersistentClient::State::Post(const std::weak_ptr<const CameraEventHandler>& subscriber,
                                   const CameraEvent& event) {
    callbacks.Post([subscriber, event] {
        // Kept alive during the call, because the handler may end its own subscription.
        if (const auto handler = subscriber.lock())
            (*handler)(event);
    });
}

}  // namespace orvik
