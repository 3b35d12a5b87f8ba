#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "protocol/message.h"

namespace orvik {

/// One message from the service.
struct Message {
    MessageHeader header;
    std::vector<std::byte> body;
};

/// Splits the bytes from the service into messages, and checks each header. Calls no Windows
/// function.
///
/// Thread: one at a time. After an exception it cannot find the next message, so it must not be
/// used any more.
class MessageReader {
public:
    /// Where the next bytes from the service go: never empty, and never beyond the end of the
    /// current message. Valid until the next call of Received().
    std::span<std::byte> Target() noexcept;

    /// Reports that the first `count` bytes of Target() have been filled. Returns the message if
    /// that completes it.
    /// Throws Error kBadAnswer for a header that is neither an answer that the library knows nor a
    /// notification.
    std::optional<Message> Received(std::size_t count);

    /// Whether a part of a message has been received.
    bool InTheMiddle() const noexcept { return headerComplete || received != 0; }

private:
    Message message{};
    std::size_t received = 0;  // bytes of the header, or of the body once that has its size
    bool headerComplete = false;
};

}  // namespace orvik
