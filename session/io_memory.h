#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <vector>

#include "device/io_operation.h"
#include "protocol/message.h"
#include "session/server_client.h"

/// The memory of a session that the system reads and writes while an operation is issued.
///
/// The callback of every operation of the session holds a share of it. So it lives until the last
/// of their packets has been taken, even if the session has been destroyed long before.
struct ServerClient::IoMemory : OwnerLink<ServerClient> {
    MessageHeader header{};
    std::unique_ptr<std::byte[]> body;              // none, or at least header.bodyLength bytes
    std::deque<std::vector<std::byte>> writeQueue;  // front: being written, or next
};
