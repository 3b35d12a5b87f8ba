#include "orvik/client.h"

#include <limits>
#include <utility>

#include "client/connect_canceller.h"
#include "client/connection.h"
#include "client/deadline.h"
#include "protocol/message.h"

namespace orvik {

// The public header repeats these, because it includes none of the service's headers.
static_assert(kCdbLimit == kCdbLength);
static_assert(kTransferInLimit == kTransferInLength);
static_assert(kTransferOutLimit == std::numeric_limits<std::int32_t>::max());

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
    Subscription subscription;
    subscription.handler = std::make_shared<const EventHandler>(std::move(handler));
    connection->Subscribe(subscription.handler);
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
