#include "client/c_api/callbacks.h"

#include "client/c_api/call.h"

namespace orvik::c_api {

namespace {

/// Has pointers into `result`.
orvik_result ToResult(const TransferResult& result) noexcept {
    orvik_result converted{};
    converted.size = sizeof(converted);
    converted.text = "";
    if (result.error) {
        converted.status = StatusOf(result.error->Kind());
        converted.system_code = result.error->SystemCode();
        converted.text = result.error->what();
    } else if (!result.data.empty()) {
        converted.length = static_cast<std::uint32_t>(result.data.size());
        converted.data = result.data.data();
    }
    return converted;
}

}  // namespace

Callbacks::Callbacks(orvik_client* clientHandle, orvik_event_callback onEvent, void* user)
    : client(clientHandle),
      eventCallback(onEvent),
      eventUser(user) {
    const Lock lock(mutex);  // GCC's mutex allocates memory at its first use: here that may fail
}

void Callbacks::Open() noexcept {
    const Lock lock(mutex);
    opened = true;
    changed.notify_all();
}

void Callbacks::Close() noexcept {
    Lock lock(mutex);
    closed = true;
    client = nullptr;
    changed.notify_all();
    if (caller != std::this_thread::get_id())
        changed.wait(lock, [this] { return caller == std::thread::id(); });
}

void Callbacks::CancelOutstanding() noexcept {
    orvik_result closing{};
    closing.size = sizeof(closing);
    closing.status = ORVIK_ERROR_CANCELLED;
    closing.text = "the client was closed";
    Lock lock(mutex);
    while (!outstanding.empty()) {
        const Request request = outstanding.begin()->second;
        outstanding.erase(outstanding.begin());
        lock.unlock();
        request.completion(&closing, request.user);
        lock.lock();
    }
}

orvik_client* Callbacks::Handle() noexcept {
    const Lock lock(mutex);
    return client;
}

void Callbacks::Report(orvik_event event) noexcept {
    Lock lock(mutex);
    if (!Begin(lock))
        return;
    event.size = sizeof(event);
    orvik_client* const handle = client;
    lock.unlock();
    eventCallback(handle, &event, eventUser);
    lock.lock();
    End(lock);
}

void Callbacks::Complete(std::uint64_t number, const TransferResult& result) noexcept {
    Lock lock(mutex);
    if (!Begin(lock))
        return;  // CancelOutstanding() calls it
    const auto found = outstanding.find(number);
    const Request request = found->second;
    outstanding.erase(found);
    lock.unlock();
    const orvik_result converted = ToResult(result);
    request.completion(&converted, request.user);
    lock.lock();
    End(lock);
}

std::uint64_t Callbacks::Add(orvik_completion completion, void* user) {
    const Lock lock(mutex);
    outstanding.emplace(++newest, Request{completion, user});
    return newest;
}

void Callbacks::Withdraw(std::uint64_t number) noexcept {
    const Lock lock(mutex);
    outstanding.erase(number);
}

/// False if no callback may begin any more.
bool Callbacks::Begin(Lock& lock) noexcept {
    changed.wait(lock, [this] { return opened || closed; });
    if (closed)
        return false;
    caller = std::this_thread::get_id();
    return true;
}

void Callbacks::End(Lock& lock) noexcept {
    caller = {};
    lock.unlock();
    changed.notify_all();
}

}  // namespace orvik::c_api
