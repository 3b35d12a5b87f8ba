#include "orvik/client.h"

#include <limits>
#include <string_view>
#include <utility>

#include "client/connect_canceller.h"
#include "client/connection.h"
#include "client/deadline.h"
#include "protocol/message.h"

#define ORVIK_TEXT_OF(value) #value
#define ORVIK_TEXT(value) ORVIK_TEXT_OF(value)

namespace orvik {

// The public header repeats these, because it includes none of the service's headers.
static_assert(kCdbLimit == kCdbLength);
static_assert(kTransferInLimit == kTransferInLength);
static_assert(std::string_view(ORVIK_CLIENT_VERSION) == ORVIK_VERSION,
              "client.h must have the version of cmake/version.cmake");
static_assert(std::string_view(ORVIK_CLIENT_VERSION) ==
              ORVIK_TEXT(ORVIK_CLIENT_VERSION_MAJOR) "." ORVIK_TEXT(
                  ORVIK_CLIENT_VERSION_MINOR) "." ORVIK_TEXT(ORVIK_CLIENT_VERSION_PATCH));
static_assert(kTransferOutLimit == std::numeric_limits<std::int32_t>::max());

std::string_view Version() noexcept {
    return ORVIK_CLIENT_VERSION;
}

ConnectCanceller::ConnectCanceller() : state(std::make_shared<State>()) {}

void ConnectCanceller::Cancel() const {
    const std::lock_guard lock(state->mutex);
    state->cancelled = true;
    if (state->action)
        state->action();
}

Subscription::~Subscription() {
    End();
}

Subscription& Subscription::operator=(Subscription&& other) noexcept {
    if (this != &other) {
        End();
        handler = std::move(other.handler);
    }
    return *this;
}

void Subscription::End() noexcept {
    handler.reset();
}

Client::Client(const ConnectOptions& options) : connection(std::make_shared<Connection>(options)) {
    try {
        connection->StartThread();
    } catch (const Error&) {
        connection->Disconnect();
        throw;
    }
}

Client::~Client() {
    if (connection)
        connection->Disconnect();
}

Client::Client(Client&& other) noexcept = default;

Client& Client::operator=(Client&& other) noexcept {
    Client taken(std::move(other));
    std::swap(connection, taken.connection);
    return *this;
}

std::vector<CameraId> Client::Cameras() const {
    return connection->Cameras();
}

void Client::RoundTrip(std::chrono::milliseconds timeout) {
    connection->RoundTrip(Deadline(timeout));
}

Subscription Client::Subscribe(EventHandler handler) {
    if (!handler)
        throw Error(ErrorKind::kBadArgument, "handler must be a function; it is empty");
    const auto subscriber = std::make_shared<const EventHandler>(std::move(handler));
    connection->Subscribe(subscriber);
    Subscription subscription;
    subscription.handler = subscriber;
    return subscription;
}

std::vector<std::byte> Client::TransferIn(CameraId camera, std::span<const std::byte> cdb,
                                          std::chrono::milliseconds timeout) {
    return connection->Transfer(kTransferIn, camera, cdb, {}, Deadline(timeout));
}

void Client::TransferOut(CameraId camera, std::span<const std::byte> cdb,
                         std::span<const std::byte> data, std::chrono::milliseconds timeout) {
    connection->Transfer(kTransferOut, camera, cdb, data, Deadline(timeout));
}

void Client::TransferNoData(CameraId camera, std::span<const std::byte> cdb,
                            std::chrono::milliseconds timeout) {
    connection->Transfer(kTransferNoData, camera, cdb, {}, Deadline(timeout));
}

Sense Client::RequestSense(CameraId camera, std::chrono::milliseconds timeout) {
    return DecodeSense(TransferIn(camera, RequestSenseCdb(), timeout));
}

RequestId Client::StartTransferIn(CameraId camera, std::span<const std::byte> cdb,
                                  Completion completion, std::chrono::milliseconds timeout) {
    return connection->StartTransfer(kTransferIn, camera, cdb, {}, std::move(completion), timeout);
}

RequestId Client::StartTransferOut(CameraId camera, std::span<const std::byte> cdb,
                                   std::span<const std::byte> data, Completion completion,
                                   std::chrono::milliseconds timeout) {
    return connection->StartTransfer(kTransferOut, camera, cdb, data, std::move(completion),
                                     timeout);
}

RequestId Client::StartTransferNoData(CameraId camera, std::span<const std::byte> cdb,
                                      Completion completion, std::chrono::milliseconds timeout) {
    return connection->StartTransfer(kTransferNoData, camera, cdb, {}, std::move(completion),
                                     timeout);
}

bool Client::Cancel(RequestId request) {
    return connection->Cancel(request);
}

}  // namespace orvik
