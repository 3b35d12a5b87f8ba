// Clients: making and closing them, their cameras and events.

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "client/c_api/call.h"
#include "client/c_api/client_handle.h"
#include "orvik/orvik.h"
#include "windows/utf.h"

namespace {

using namespace orvik::c_api;
using orvik::Error;
using orvik::ErrorKind;

orvik_options Defaults() noexcept {
    orvik_options options{};
    options.size = sizeof(options);
    options.timeout_ms = ORVIK_CONNECT_TIMEOUT;
    options.gone_wait_ms = static_cast<std::uint32_t>(orvik::kGoneWait.count());
    options.transfer_out_limit = ORVIK_TRANSFER_OUT_LIMIT;
    options.check_server = 1;
    return options;
}

orvik::ConnectOptions ToConnectOptions(const orvik_options& options) {
    orvik::ConnectOptions result;
    result.timeout = Timeout(options.timeout_ms);
    result.goneWait = Timeout(options.gone_wait_ms);
    result.transferOutLimit = options.transfer_out_limit;
    result.checkServer = options.check_server != 0;
    if (options.pipe != nullptr)
        result.pipe = ToUtf16(options.pipe);
    if (options.canceller != nullptr)
        result.canceller = options.canceller->canceller;
    return result;
}

orvik_event EventOf(std::int32_t kind, orvik_camera camera = 0) noexcept {
    orvik_event event{};
    event.kind = kind;
    event.camera = camera;
    event.text = "";
    return event;
}

/// The text is that of `error`.
orvik_event DisconnectedBy(const Error& error) noexcept {
    orvik_event event = EventOf(ORVIK_EVENT_DISCONNECTED);
    event.status = StatusOf(error.Kind());
    event.system_code = error.SystemCode();
    event.text = error.what();
    return event;
}

/// These refer to the text of `event`.
orvik_event ToEvent(const orvik::Event& event) noexcept {
    using Kind = orvik::Event::Kind;
    switch (event.kind) {
        case Kind::kCameraAttached:
            return EventOf(ORVIK_EVENT_ATTACHED, ToValue(event.camera));
        case Kind::kCameraDetached:
            return EventOf(ORVIK_EVENT_DETACHED, ToValue(event.camera));
        case Kind::kServiceGone:
            break;
    }
    return DisconnectedBy(*event.error);
}

orvik_event ToEvent(const orvik::CameraEvent& event) noexcept {
    using Kind = orvik::CameraEvent::Kind;
    switch (event.kind) {
        case Kind::kConnected:
            return EventOf(ORVIK_EVENT_CONNECTED);
        case Kind::kCameraAttached:
            return EventOf(ORVIK_EVENT_ATTACHED, ToValue(event.camera));
        case Kind::kCameraDetached:
            return EventOf(ORVIK_EVENT_DETACHED, ToValue(event.camera));
        case Kind::kDisconnected:
            break;
    }
    return DisconnectedBy(*event.error);
}

/// `emplace` makes the C++ client in its place in the handle, and returns it.
template <typename Emplace>
orvik_status Make(const orvik_options* options, orvik_client** client, Emplace emplace) noexcept {
    return Call([&] {
        RequirePointer(client != nullptr, "client");
        *client = nullptr;
        orvik_options known = Defaults();
        if (options != nullptr) {
            RequireSize(options->size, sizeof(orvik_options), "options");
            std::memcpy(&known, options, sizeof(known));
        }
        auto made = std::make_unique<orvik_client>(known.on_event, known.user);
        const std::shared_ptr<Callbacks> callbacks = made->callbacks;
        auto& connected = emplace(*made, ToConnectOptions(known));
        if (known.on_event != nullptr)
            made->subscription = connected.Subscribe(
                [callbacks](const auto& event) { callbacks->Report(ToEvent(event)); });
        *client = made.release();
        callbacks->Open();  // from here on a callback may close the client
        return ORVIK_OK;
    });
}

}  // namespace

extern "C" {

orvik_status ORVIK_CALL orvik_canceller_create(orvik_canceller** canceller) {
    return Call([&] {
        RequirePointer(canceller != nullptr, "canceller");
        *canceller = nullptr;
        *canceller = new orvik_canceller;
        return ORVIK_OK;
    });
}

orvik_status ORVIK_CALL orvik_canceller_cancel(orvik_canceller* canceller) {
    return Call([&] {
        RequirePointer(canceller != nullptr, "canceller");
        canceller->canceller.Cancel();
        return ORVIK_OK;
    });
}

void ORVIK_CALL orvik_canceller_close(orvik_canceller* canceller) {
    delete canceller;
}

orvik_status ORVIK_CALL orvik_options_init(orvik_options* options, uint32_t size) {
    return Call([&] {
        RequirePointer(options != nullptr, "options");
        RequireSize(size, sizeof(orvik_options), "options");
        orvik_options defaults = Defaults();
        defaults.size = size;
        std::memset(options, 0, size);
        std::memcpy(options, &defaults, sizeof(defaults));
        return ORVIK_OK;
    });
}

orvik_status ORVIK_CALL orvik_client_connect(const orvik_options* options, orvik_client** client) {
    return Make(options, client,
                [](orvik_client& handle, const orvik::ConnectOptions& how) -> orvik::Client& {
                    return handle.plain.emplace(how);
                });
}

orvik_status ORVIK_CALL orvik_client_open(const orvik_options* options, orvik_client** client) {
    return Make(
        options, client,
        [](orvik_client& handle, const orvik::ConnectOptions& how) -> orvik::PersistentClient& {
            return handle.persistent.emplace(how);
        });
}

void ORVIK_CALL orvik_client_close(orvik_client* client) {
    delete client;
}

orvik_status ORVIK_CALL orvik_client_cameras(orvik_client* client, orvik_camera* cameras,
                                             uint32_t capacity, uint32_t* count) {
    return Call([&] {
        RequirePointer(client != nullptr, "client");
        RequirePointer(cameras != nullptr || capacity == 0, "cameras");
        RequirePointer(count != nullptr, "count");
        const auto write = [&](const auto& present) {
            const std::size_t written = std::min<std::size_t>(present.size(), capacity);
            std::transform(present.begin(), present.begin() + static_cast<std::ptrdiff_t>(written),
                           cameras, [](const auto& camera) { return ToValue(camera); });
            *count = static_cast<std::uint32_t>(present.size());
            return written == present.size()
                       ? ORVIK_OK
                       : Fail(ORVIK_ERROR_BUFFER_TOO_SMALL,
                              "there are more cameras than the buffer has room for");
        };
        if (client->persistent)
            return write(client->persistent->Cameras());
        if (!client->plain)
            ThrowClosing();
        return write(client->plain->Cameras());
    });
}

orvik_status ORVIK_CALL orvik_client_round_trip(orvik_client* client, uint32_t timeout_ms) {
    return Call([&] {
        RequirePointer(client != nullptr, "client");
        if (client->persistent)
            throw Error(ErrorKind::kBadArgument, "client must be a plain client");
        if (!client->plain)
            ThrowClosing();
        client->plain->RoundTrip(Timeout(timeout_ms));
        return ORVIK_OK;
    });
}

}  // extern "C"
