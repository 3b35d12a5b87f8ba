#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "client/c_api/call.h"
#include "client/c_api/callbacks.h"
#include "orvik/orvik.h"
#include "orvik/persistent_client.h"

/// A client of one of the two kinds.
struct orvik_client {
    orvik_client(orvik_event_callback onEvent, void* user)
        : callbacks(std::make_shared<orvik::c_api::Callbacks>(this, onEvent, user)) {}

    /// Does what orvik_client_close() documents.
    ~orvik_client() {
        callbacks->Close();  // waits for a callback in progress, which may use the client
        plain.reset();
        persistent.reset();
        callbacks->CancelOutstanding();
    }

    orvik_client(const orvik_client&) = delete;
    orvik_client& operator=(const orvik_client&) = delete;

    const std::shared_ptr<orvik::c_api::Callbacks> callbacks;
    // One of them, but none while the client is being closed.
    std::optional<orvik::Client> plain{};
    std::optional<orvik::PersistentClient> persistent{};
    orvik::Subscription subscription{};
};

struct orvik_canceller {
    orvik::ConnectCanceller canceller{};
};

namespace orvik::c_api {

[[noreturn]] inline void ThrowClosing() {
    throw Error(ErrorKind::kServiceGone, "the client is being closed");
}

/// The value of a camera. A plain client's cameras have no generation, and the lower 32 bits of a
/// persistent one's last for more than a century of reconnects.
inline orvik_camera ToValue(CameraId camera) noexcept {
    return camera;
}
inline orvik_camera ToValue(const Camera& camera) noexcept {
    return camera.generation << 32 | camera.id;
}

/// Calls `function` with the C++ client, and `camera` as it names it. Throws kNoSuchCamera for a
/// value that no plain client has given.
template <typename Function>
auto WithCamera(orvik_client* client, orvik_camera camera, Function function) {
    RequirePointer(client != nullptr, "client");
    const auto id = static_cast<CameraId>(camera);
    if (client->persistent)
        return function(*client->persistent, Camera{camera >> 32, id});
    if (!client->plain)
        ThrowClosing();
    if (camera != id)
        throw Error(ErrorKind::kNoSuchCamera, "the value is not a camera of this client");
    return function(*client->plain, id);
}

}  // namespace orvik::c_api
