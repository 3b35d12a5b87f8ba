#include "orvik/persistent_client.h"

#include <algorithm>
#include <utility>

#include "client/deadline.h"
#include "client/persistent_state.h"

namespace orvik {

namespace {

std::chrono::milliseconds Left(const Deadline& deadline) {
    return std::chrono::milliseconds(deadline.Left());
}

/// When an asynchronous request must have been sent.
Deadline SendDeadline(std::chrono::milliseconds timeout) {
    return Deadline(std::min(timeout, kTransferTimeout));
}

}  // namespace

PersistentClient::PersistentClient(const ConnectOptions& options)
    : state(std::make_shared<State>(options)) {
    state->Start();
}

PersistentClient::~PersistentClient() {
    state->End();
}

std::vector<Camera> PersistentClient::Cameras() const {
    return state->Cameras();
}

Subscription PersistentClient::Subscribe(CameraEventHandler handler) {
    if (!handler)
        throw Error(ErrorKind::kBadArgument, "handler must be a function; it is empty");
    const auto subscriber = std::make_shared<const CameraEventHandler>(std::move(handler));
    state->Subscribe(subscriber);
    Subscription subscription;
    subscription.handler = subscriber;
    return subscription;
}

std::vector<std::byte> PersistentClient::TransferIn(const Camera& camera,
                                                    std::span<const std::byte> cdb,
                                                    std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    const auto link = state->LinkFor(camera, deadline);
    return link->client->TransferIn(camera.id, cdb, Left(deadline));
}

void PersistentClient::TransferOut(const Camera& camera, std::span<const std::byte> cdb,
                                   std::span<const std::byte> data,
                                   std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    const auto link = state->LinkFor(camera, deadline);
    link->client->TransferOut(camera.id, cdb, data, Left(deadline));
}

void PersistentClient::TransferNoData(const Camera& camera, std::span<const std::byte> cdb,
                                      std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    const auto link = state->LinkFor(camera, deadline);
    link->client->TransferNoData(camera.id, cdb, Left(deadline));
}

Sense PersistentClient::RequestSense(const Camera& camera, std::chrono::milliseconds timeout) {
    return DecodeSense(TransferIn(camera, RequestSenseCdb(), timeout));
}

PersistentClient::Request PersistentClient::StartTransferIn(const Camera& camera,
                                                            std::span<const std::byte> cdb,
                                                            Completion completion,
                                                            std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    const auto link = state->LinkFor(camera, SendDeadline(timeout));
    return {link->number, link->client->StartTransferIn(
                              camera.id, cdb, state->OnHandlerThread(link, std::move(completion)),
                              Left(deadline))};
}

PersistentClient::Request PersistentClient::StartTransferOut(const Camera& camera,
                                                             std::span<const std::byte> cdb,
                                                             std::span<const std::byte> data,
                                                             Completion completion,
                                                             std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    const auto link = state->LinkFor(camera, SendDeadline(timeout));
    return {link->number, link->client->StartTransferOut(
                              camera.id, cdb, data,
                              state->OnHandlerThread(link, std::move(completion)), Left(deadline))};
}

PersistentClient::Request PersistentClient::StartTransferNoData(const Camera& camera,
                                                                std::span<const std::byte> cdb,
                                                                Completion completion,
                                                                std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    const auto link = state->LinkFor(camera, SendDeadline(timeout));
    return {link->number, link->client->StartTransferNoData(
                              camera.id, cdb, state->OnHandlerThread(link, std::move(completion)),
                              Left(deadline))};
}

bool PersistentClient::Cancel(const Request& request) {
    const auto link = state->FindLink(request.connection);
    return link && link->client->Cancel(request.id);
}

}  // namespace orvik
