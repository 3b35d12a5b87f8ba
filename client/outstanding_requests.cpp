#include "client/outstanding_requests.h"

#include <algorithm>
#include <string>
#include <utility>

namespace orvik {

namespace {

[[noreturn]] void ThrowBadAnswer(const MessageHeader& answer, const std::string& why) {
    throw Error(ErrorKind::kBadAnswer, "the service answered request " +
                                           std::to_string(answer.requestId) + " on camera " +
                                           std::to_string(answer.cameraId) + ", " + why);
}

}  // namespace

AnswerWaiter::~AnswerWaiter() {
    if (request != nullptr)
        request->waiter = nullptr;
}

RequestId OutstandingRequests::Add(Request request) {
    const RequestId id = NextId();
    Request& added = requests.emplace(id, std::move(request)).first->second;
    if (added.waiter != nullptr)
        added.waiter->request = &added;
    newest = id;
    return id;
}

bool OutstandingRequests::Withdraw(RequestId id) {
    const auto found = requests.find(id);
    if (found == requests.end())
        return false;
    if (found->second.waiter != nullptr)
        found->second.waiter->request = nullptr;
    requests.erase(found);
    return true;
}

bool OutstandingRequests::CompletionExpected() const {
    return std::any_of(requests.begin(), requests.end(),
                       [](const auto& entry) { return entry.second.completion != nullptr; });
}

void OutstandingRequests::Answer(Message message) {
    const MessageHeader header = message.header;
    const bool succeeded = header.messageType == kTransferSucceeded;
    const auto found = requests.find(header.requestId);
    if (found == requests.end() || found->second.camera != header.cameraId)
        ThrowBadAnswer(header, "which is not outstanding");
    Request& request = found->second;
    if (succeeded && request.roundTrip)
        ThrowBadAnswer(header, "which it must refuse, with success");
    if (succeeded && header.bodyLength != 0 && request.type != kTransferIn)
        ThrowBadAnswer(
            header, "which returns no data, with " + std::to_string(header.bodyLength) + " bytes");
    TransferResult result{.data = std::move(message.body)};
    if (!succeeded)
        result.error.emplace(ErrorKind::kRefused,
                             "the command failed on camera " + std::to_string(header.cameraId));
    End(request, std::move(result));
    requests.erase(found);
}

bool OutstandingRequests::Cancel(RequestId id) {
    const auto found = requests.find(id);
    if (found == requests.end() || !found->second.completion)
        return false;
    End(found->second, {.error = Error(ErrorKind::kCancelled, "the request was cancelled")});
    return true;
}

void OutstandingRequests::EndAll(const Error& error) {
    for (auto& [id, request] : requests)
        End(request, {.error = error});
    requests.clear();
}

void OutstandingRequests::DropCompletions() noexcept {
    for (auto& [id, request] : requests)
        request.completion = nullptr;
}

void OutstandingRequests::End(Request& request, TransferResult result) {
    if (AnswerWaiter* const waiter = std::exchange(request.waiter, nullptr)) {
        waiter->request = nullptr;
        waiter->result = std::move(result);
        if (waiter->thread != std::this_thread::get_id())
            ::SetEvent(waiter->answeredEvent);
    } else if (request.completion) {
        callbacks->Post([completion = std::exchange(request.completion, nullptr),
                         result = std::move(result)]() mutable { completion(std::move(result)); });
    }
}

}  // namespace orvik
