// A connection to OrvikService that an application creates at its start and keeps.
//
//     orvik::PersistentClient client;
//     const auto subscription = client.Subscribe([](const orvik::CameraEvent& event) {
//         if (event.kind == orvik::CameraEvent::Kind::kCameraAttached)
//             Show(event.camera);  // catches orvik::Error: the camera may have gone already
//     });
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include <orvik/client.h>

namespace orvik {

/// One camera, from the time when it is attached until it is detached. A value of an earlier run of
/// the service never means another camera: calls refuse it with kNoSuchCamera.
struct Camera {
    std::uint64_t generation = 0;  ///< counts the service's runs that this object has seen
    CameraId id = 0;               ///< the service's identifier; every run counts from 1

    bool operator==(const Camera& other) const = default;
};

/// What a subscriber's handler is called with.
struct CameraEvent {
    enum class Kind {
        kConnected,
        kDisconnected,  ///< or, while disconnected, connecting fails for another kind of reason
        kCameraAttached,
        kCameraDetached,
    };
    Kind kind;
    Camera camera{};               ///< of kCameraAttached and kCameraDetached
    std::optional<Error> error{};  ///< of kDisconnected: why
};

/// Called on the handler thread.
using CameraEventHandler = std::function<void(const CameraEvent& event)>;

/// A client that connects when the service can be reached, and connects again when the connection
/// has ended. It also hears of cameras when another program receives the service's notifications.
///
/// Connecting: the first attempt begins at once. After an attempt that fails, the next one follows
/// after 250 ms, then after twice the time before, up to 5 s. It follows at once when the service
/// control manager reports that the service runs, or Windows reports that a disk or CD-ROM drive
/// has arrived or been removed.
///
/// Cameras: each subscriber receives kCameraAttached and kCameraDetached for each camera in turn,
/// never one of them twice. When the connection ends, all cameras are detached first.
///
/// Hints: the service reports cameras that come and go to one client only. Windows reports disk and
/// CD-ROM drives to every program. When Windows reports one and the service does not, this class
/// looks 0.5, 2 and 5 s later, on a second connection, which cameras are present.
/// docs/client-internals.md says what it cannot know.
///
/// Unknown cameras: a request for a camera that the service does not know ends the service's run.
/// So the first call for a camera, and the first one after Windows has reported that a drive was
/// removed, makes a round trip to the service before it names the camera, or connects a second time
/// if the service has not reported anything to this client yet. A camera that is removed after that
/// can still end the run.
///
/// Threads: any thread may make any call, except destruction, which needs exclusive access. One
/// thread, the handler thread, calls event handlers and completions, one after the other. Those may
/// make every call of this library, and may destroy this object. An exception that they throw ends
/// the program.
///
/// Errors: calls throw Error and std::bad_alloc, as those of Client do.
class PersistentClient {
public:
    /// Begins to connect, and returns at once. `options.timeout` is for each attempt.
    /// `options.canceller` has no effect.
    /// Throws kSystem when Windows does not provide a window or a thread.
    explicit PersistentClient(const ConnectOptions& options = {});

    /// Waits for a call in progress on the handler thread, unless it is that call itself, and
    /// disconnects as ~Client() does. Ends an attempt to connect, also that of a call in progress,
    /// which then throws kCancelled. Abandons outstanding requests. No handler or completion is
    /// called any more.
    ~PersistentClient();

    PersistentClient(const PersistentClient&) = delete;
    PersistentClient& operator=(const PersistentClient&) = delete;

    /// The cameras present, in the order in which they were attached. Never waits.
    std::vector<Camera> Cameras() const;

    /// Calls `handler` on the handler thread: with kConnected and kCameraAttached for each camera
    /// present, or with kDisconnected, or not at all during the first attempt to connect; then with
    /// each event in order. The first call may begin before this function returns.
    /// Throws kBadArgument if `handler` is empty.
    [[nodiscard]] Subscription Subscribe(CameraEventHandler handler);

    // As the functions of Client. Each throws kNoSuchCamera for a camera that is not among
    // Cameras(), and, before it names a camera (see "Unknown cameras"), what connecting throws.

    std::vector<std::byte> TransferIn(const Camera& camera, std::span<const std::byte> cdb,
                                      std::chrono::milliseconds timeout = kTransferTimeout);
    void TransferOut(const Camera& camera, std::span<const std::byte> cdb,
                     std::span<const std::byte> data,
                     std::chrono::milliseconds timeout = kTransferTimeout);
    void TransferNoData(const Camera& camera, std::span<const std::byte> cdb,
                        std::chrono::milliseconds timeout = kTransferTimeout);
    Sense RequestSense(const Camera& camera, std::chrono::milliseconds timeout = kTransferTimeout);

    /// Identifies an asynchronous request of this object.
    struct Request {
        std::uint64_t connection = 0;
        RequestId id = 0;
    };

    // As the functions of Client. The request ends on the connection on which it began.

    Request StartTransferIn(const Camera& camera, std::span<const std::byte> cdb,
                            Completion completion, std::chrono::milliseconds timeout = kNoTimeout);
    Request StartTransferOut(const Camera& camera, std::span<const std::byte> cdb,
                             std::span<const std::byte> data, Completion completion,
                             std::chrono::milliseconds timeout = kNoTimeout);
    Request StartTransferNoData(const Camera& camera, std::span<const std::byte> cdb,
                                Completion completion,
                                std::chrono::milliseconds timeout = kNoTimeout);

    /// Ends an asynchronous request, as Client::Cancel() does.
    bool Cancel(const Request& request);

private:
    class State;
    std::shared_ptr<State> state;
};

}  // namespace orvik
