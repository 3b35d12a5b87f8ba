// Transfers, synchronous and asynchronous.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <utility>
#include <variant>
#include <vector>

#include "client/c_api/call.h"
#include "client/c_api/client_handle.h"
#include "orvik/orvik.h"

namespace orvik::c_api {

/// What a handle of a request shares with the function that starts it: the completion may close the
/// handle before that function returns.
struct RequestState {
    explicit RequestState(std::shared_ptr<Callbacks> ofClient) : callbacks(std::move(ofClient)) {}

    const std::shared_ptr<Callbacks> callbacks;
    std::mutex mutex;
    std::variant<std::monostate, RequestId, PersistentClient::Request> id{};  // none: being sent
};

}  // namespace orvik::c_api

struct orvik_request {
    explicit orvik_request(std::shared_ptr<orvik::c_api::RequestState> shared)
        : state(std::move(shared)) {}

    const std::shared_ptr<orvik::c_api::RequestState> state;
};

namespace {

using namespace orvik::c_api;
using Bytes = std::span<const std::byte>;

Bytes ToBytes(const void* data, std::uint32_t length, const char* name) {
    RequirePointer(data != nullptr || length == 0, name);
    return {static_cast<const std::byte*>(data), length};
}

Bytes ToCdb(const std::uint8_t* cdb, std::uint32_t length) {
    RequirePointer(cdb != nullptr, "cdb");
    return ToBytes(cdb, length, "cdb");
}

/// `start` makes the call of the C++ library with a completion, and returns the request's
/// identifier.
template <typename Start>
orvik_status StartRequest(orvik_client* client, orvik_camera camera, orvik_completion completion,
                          void* user, orvik_request** request, Start start) noexcept {
    if (request != nullptr)
        *request = nullptr;
    return Call([&] {
        RequirePointer(client != nullptr, "client");
        RequirePointer(completion != nullptr, "completion");
        const std::shared_ptr<Callbacks> callbacks = client->callbacks;
        std::shared_ptr<RequestState> state;
        std::unique_ptr<orvik_request> handle;
        if (request != nullptr) {
            state = std::make_shared<RequestState>(callbacks);
            handle = std::make_unique<orvik_request>(state);
        }
        const std::uint64_t number = callbacks->Add(completion, user);
        if (request != nullptr)
            *request = handle.get();
        try {
            WithCamera(client, camera, [&](auto& connected, const auto& named) {
                const auto id = start(connected, named,
                                      [callbacks, number](const orvik::TransferResult& result) {
                                          callbacks->Complete(number, result);
                                      });
                static_cast<void>(handle.release());
                if (state) {
                    const std::lock_guard lock(state->mutex);
                    state->id = id;
                }
            });
        } catch (...) {
            callbacks->Withdraw(number);
            if (request != nullptr)
                *request = nullptr;
            throw;
        }
        return ORVIK_OK;
    });
}

}  // namespace

extern "C" {

orvik_status ORVIK_CALL orvik_transfer_in(orvik_client* client, orvik_camera camera,
                                          const uint8_t* cdb, uint32_t cdb_length, void* data,
                                          uint32_t capacity, uint32_t* length,
                                          uint32_t timeout_ms) {
    return Call([&] {
        RequirePointer(data != nullptr || capacity == 0, "data");
        RequirePointer(length != nullptr, "length");
        const Bytes command = ToCdb(cdb, cdb_length);
        const std::vector<std::byte> answer =
            WithCamera(client, camera, [&](auto& connected, const auto& named) {
                return connected.TransferIn(named, command, Timeout(timeout_ms));
            });
        const std::size_t written = std::min<std::size_t>(answer.size(), capacity);
        if (written != 0)
            std::memcpy(data, answer.data(), written);
        *length = static_cast<std::uint32_t>(answer.size());
        return written == answer.size() ? ORVIK_OK
                                        : Fail(ORVIK_ERROR_BUFFER_TOO_SMALL,
                                               "the camera returned more bytes than the buffer has "
                                               "room for");
    });
}

orvik_status ORVIK_CALL orvik_transfer_out(orvik_client* client, orvik_camera camera,
                                           const uint8_t* cdb, uint32_t cdb_length,
                                           const void* data, uint32_t length, uint32_t timeout_ms) {
    return Call([&] {
        const Bytes command = ToCdb(cdb, cdb_length);
        const Bytes bytes = ToBytes(data, length, "data");
        WithCamera(client, camera, [&](auto& connected, const auto& named) {
            connected.TransferOut(named, command, bytes, Timeout(timeout_ms));
        });
        return ORVIK_OK;
    });
}

orvik_status ORVIK_CALL orvik_transfer_no_data(orvik_client* client, orvik_camera camera,
                                               const uint8_t* cdb, uint32_t cdb_length,
                                               uint32_t timeout_ms) {
    return Call([&] {
        const Bytes command = ToCdb(cdb, cdb_length);
        WithCamera(client, camera, [&](auto& connected, const auto& named) {
            connected.TransferNoData(named, command, Timeout(timeout_ms));
        });
        return ORVIK_OK;
    });
}

orvik_status ORVIK_CALL orvik_start_in(orvik_client* client, orvik_camera camera,
                                       const uint8_t* cdb, uint32_t cdb_length,
                                       orvik_completion completion, void* user, uint32_t timeout_ms,
                                       orvik_request** request) {
    return StartRequest(client, camera, completion, user, request,
                        [&](auto& connected, const auto& named, orvik::Completion done) {
                            return connected.StartTransferIn(named, ToCdb(cdb, cdb_length),
                                                             std::move(done), Timeout(timeout_ms));
                        });
}

orvik_status ORVIK_CALL orvik_start_out(orvik_client* client, orvik_camera camera,
                                        const uint8_t* cdb, uint32_t cdb_length, const void* data,
                                        uint32_t length, orvik_completion completion, void* user,
                                        uint32_t timeout_ms, orvik_request** request) {
    return StartRequest(client, camera, completion, user, request,
                        [&](auto& connected, const auto& named, orvik::Completion done) {
                            return connected.StartTransferOut(named, ToCdb(cdb, cdb_length),
                                                              ToBytes(data, length, "data"),
                                                              std::move(done), Timeout(timeout_ms));
                        });
}

orvik_status ORVIK_CALL orvik_start_no_data(orvik_client* client, orvik_camera camera,
                                            const uint8_t* cdb, uint32_t cdb_length,
                                            orvik_completion completion, void* user,
                                            uint32_t timeout_ms, orvik_request** request) {
    return StartRequest(client, camera, completion, user, request,
                        [&](auto& connected, const auto& named, orvik::Completion done) {
                            return connected.StartTransferNoData(named, ToCdb(cdb, cdb_length),
                                                                 std::move(done),
                                                                 Timeout(timeout_ms));
                        });
}

orvik_status ORVIK_CALL orvik_request_cancel(orvik_request* request) {
    return Call([&] {
        RequirePointer(request != nullptr, "request");
        bool cancelled = false;
        if (orvik_client* const client = request->state->callbacks->Handle()) {
            const std::lock_guard lock(request->state->mutex);
            if (const auto* const plain = std::get_if<orvik::RequestId>(&request->state->id))
                cancelled = client->plain->Cancel(*plain);
            else if (const auto* const persistent =
                         std::get_if<orvik::PersistentClient::Request>(&request->state->id))
                cancelled = client->persistent->Cancel(*persistent);
        }
        return cancelled ? ORVIK_OK
                         : Fail(ORVIK_ERROR_NOT_OUTSTANDING, "the request is not outstanding");
    });
}

void ORVIK_CALL orvik_request_close(orvik_request* request) {
    delete request;
}

orvik_status ORVIK_CALL orvik_get_sense(orvik_client* client, orvik_camera camera,
                                        orvik_sense* sense, uint32_t timeout_ms) {
    return Call([&] {
        RequirePointer(sense != nullptr, "sense");
        RequireSize(sense->size, sizeof(orvik_sense), "sense");
        const std::vector<std::byte> answer =
            WithCamera(client, camera, [&](auto& connected, const auto& named) {
                return connected.TransferIn(named, orvik::RequestSenseCdb(), Timeout(timeout_ms));
            });
        return orvik_decode_sense(answer.data(), static_cast<std::uint32_t>(answer.size()), sense);
    });
}

}  // extern "C"
