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

bool IsWaitedFor(const Request& request) noexcept {
    return request.waiter != nullptr || request.completion != nullptr;
}

Error Refused(const Request& request) {
    return {ErrorKind::kRefused, "the command failed on camera " + std::to_string(request.camera)};
}

Error Gone(const Request& request) {
    return {ErrorKind::kCameraGone, "camera " + std::to_string(request.camera) +
                                        " was unplugged, or given up, during the command"};
}

Error TimedOut(const Request& request) {
    if (request.roundTrip)
        return {ErrorKind::kTimedOut,
                "the service did not answer in time; probably the service is busy with a command"};
    return {ErrorKind::kTimedOut, "camera " + std::to_string(request.camera) +
                                      " did not answer in time, or the service is busy with "
                                      "another command"};
}

}  // namespace

AnswerWaiter::~AnswerWaiter() {
    if (request != nullptr)
        request->waiter = nullptr;
}

void AnswerWaiter::Wake() const noexcept {
    if (thread != std::this_thread::get_id())
        ::SetEvent(answeredEvent);
}

RequestId OutstandingRequests::Add(Request request) {
    const RequestId id = NextId();
    nextDue = std::min(nextDue, request.due);
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
    const bool waitedFor = IsWaitedFor(found->second);
    if (found->second.waiter != nullptr)
        found->second.waiter->request = nullptr;
    requests.erase(found);
    return waitedFor;
}

bool OutstandingRequests::IsOutstanding(RequestId id) const {
    const auto found = requests.find(id);
    return found != requests.end() && !found->second.refused;
}

std::optional<std::chrono::microseconds> OutstandingRequests::TimeSinceSent(RequestId id) const {
    const auto found = requests.find(id);
    if (found == requests.end())
        return std::nullopt;
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() -
                                                                 found->second.sent);
}

bool OutstandingRequests::CompletionExpected() const {
    return std::any_of(requests.begin(), requests.end(),
                       [](const auto& entry) { return entry.second.completion != nullptr; });
}

void OutstandingRequests::Answer(Message message, bool cameraPresent) {
    const MessageHeader header = message.header;
    const bool succeeded = header.messageType == kTransferSucceeded;
    const auto found = requests.find(header.requestId);
    if (found == requests.end() || found->second.refused || found->second.camera != header.cameraId)
        ThrowBadAnswer(header, "which is not outstanding");
    Request& request = found->second;
    if (succeeded && request.roundTrip)
        ThrowBadAnswer(header, "which it must refuse, with success");
    if (succeeded && header.bodyLength != 0 && request.type != kTransferIn)
        ThrowBadAnswer(
            header, "which returns no data, with " + std::to_string(header.bodyLength) + " bytes");
    if (!succeeded && cameraPresent && !request.roundTrip && IsWaitedFor(request)) {
        Refuse(request);
        return;
    }
    TransferResult result{.data = std::move(message.body)};
    if (!succeeded)
        result.error = cameraPresent || request.roundTrip ? Refused(request) : Gone(request);
    End(request, std::move(result));
    requests.erase(found);
}

void OutstandingRequests::Refuse(Request& request) {
    request.refused = true;
    request.due = std::min(request.due, Deadline(goneWait));
    nextDue = std::min(nextDue, request.due);
    // Both have computed how long they wait.
    if (request.waiter != nullptr)
        request.waiter->Wake();
    else
        callbacks->WakeBy(request.due);
}

void OutstandingRequests::CameraGone(CameraId camera) {
    for (auto next = requests.begin(); next != requests.end();) {
        Request& request = next->second;
        if (request.refused && request.camera == camera) {
            End(request, {.error = Gone(request)});
            next = requests.erase(next);
        } else {
            ++next;
        }
    }
}

void OutstandingRequests::EndDue() {
    if (!nextDue.Passed())
        return;
    nextDue = Deadline::None();
    for (auto next = requests.begin(); next != requests.end();) {
        Request& request = next->second;
        if (request.due.Passed()) {
            End(request, {.error = request.refused ? Refused(request) : TimedOut(request)});
            request.due = Deadline::None();  // the answer is dropped when it arrives
            if (request.refused) {
                next = requests.erase(next);
                continue;
            }
        }
        nextDue = std::min(nextDue, request.due);
        ++next;
    }
}

bool OutstandingRequests::Cancel(RequestId id) {
    const auto found = requests.find(id);
    if (found == requests.end() || !IsWaitedFor(found->second))
        return false;
    End(found->second, {.error = Error(ErrorKind::kCancelled, "the request was cancelled")});
    if (found->second.refused)
        requests.erase(found);
    return true;
}

void OutstandingRequests::EndAll(const Error& error) {
    for (auto& [id, request] : requests)
        End(request, {.error = request.refused ? Refused(request) : error});
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
        waiter->Wake();
    } else if (request.completion) {
        callbacks->Post([completion = std::exchange(request.completion, nullptr),
                         result = std::move(result)]() mutable { completion(std::move(result)); });
    }
}

}  // namespace orvik
