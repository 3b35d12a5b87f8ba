#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

#include "session/server_client.h"

/// The memory of a session that the system reads and writes while an operation is issued.
///
/// The callback of every operation of the session holds a share of it, so it lives until the last
/// of their packets has come, though the session may be long gone.
struct ServerClient::IoMemory {
    ServerClient* session;  // null once it is destroyed
    MessageHeader header{};
    std::unique_ptr<std::byte[]> body;  // none, or header.bodyLength bytes (see ReadBodyComplete)
    std::deque<std::vector<std::byte>> writeQueue;  // front: being written, or next
};

template <void (ServerClient::*handler)(IoOperation*)>
IoCallback ServerClient::CallbackTo() const {
    return [memory = memory](IoOperation* operation) {
        // Nothing of this callable is touched after either call: both may destroy it.
        if (memory->session != nullptr)
            (memory->session->*handler)(operation);
        else
            DiscardOperation(operation);
    };
}
