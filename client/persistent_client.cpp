#include "orvik/persistent_client.h"

#include <algorithm>
#include <utility>

#include "client/deadline.h"
#include "client/persistent_state.h"

namespace orvik {

namespace {

/// Starts an asynchronous request. `start` sends it: it is called with the Client, the completion
/// and the time-out of the answer.
template <typename State, typename Start>
PersistentClient::Request StartRequest(State& state, const Camera& camera, Completion completion,
                                       std::chrono::milliseconds timeout, Start start) {
    const Deadline due(timeout);
    const auto link = state.LinkFor(camera, std::min(due, Deadline(kTransferTimeout)));
    return {link->number, start(*link->client, state.OnHandlerThread(link, std::move(completion)),
                                due.TimeLeft())};
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
    return link->client->TransferIn(camera.id, cdb, deadline.TimeLeft());
}

void PersistentClient::TransferOut(const Camera& camera, std::span<const std::byte> cdb,
                                   std::span<const std::byte> data,
                                   std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    const auto link = state->LinkFor(camera, deadline);
    link->client->TransferOut(camera.id, cdb, data, deadline.TimeLeft());
}

void PersistentClient::TransferNoData(const Camera& camera, std::span<const std::byte> cdb,
                                      std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    const auto link = state->LinkFor(camera, deadline);
    link->client->TransferNoData(camera.id, cdb, deadline.TimeLeft());
}

Sense PersistentClient::RequestSense(const Camera& camera, std::chrono::milliseconds timeout) {
    return DecodeSense(TransferIn(camera, RequestSenseCdb(), timeout));
}

PersistentClient::Request PersistentClient::StartTransferIn(const Camera& camera,
                                                            std::span<const std::byte> cdb,
                                                            Completion completion,
                                                            std::chrono::milliseconds timeout) {
    return StartRequest(*state, camera, std::move(completion), timeout,
                        [&](Client& client, Completion onAnswer, std::chrono::milliseconds left) {
                            return client.StartTransferIn(camera.id, cdb, std::move(onAnswer),
                                                          left);
                        });
}

PersistentClient::Request PersistentClient::StartTransferOut(const Camera& camera,
                                                             std::span<const std::byte> cdb,
                                                             std::span<const std::byte> data,
                                                             Completion completion,
                                                             std::chrono::milliseconds timeout) {
    return StartRequest(*state, camera, std::move(completion), timeout,
                        [&](Client& client, Completion onAnswer, std::chrono::milliseconds left) {
                            return client.StartTransferOut(camera.id, cdb, data,
                                                           std::move(onAnswer), left);
                        });
}

PersistentClient::Request PersistentClient::StartTransferNoData(const Camera& camera,
                                                                std::span<const std::byte> cdb,
                                                                Completion completion,
                                                                std::chrono::milliseconds timeout) {
    return StartRequest(*state, camera, std::move(completion), timeout,
                        [&](Client& client, Completion onAnswer, std::chrono::milliseconds left) {
                            return client.StartTransferNoData(camera.id, cdb, std::move(onAnswer),
                                                              left);
                        });
}

bool PersistentClient::Cancel(const Request& request) {
    const auto link = state->FindLink(request.connection);
    return link && link->client->Cancel(request.id);
}

}  // namespace orvik
