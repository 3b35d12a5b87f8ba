#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

#include "protocol/message.h"

namespace orvik {

/// One message of the service.
struct Message {
    MessageHeader header;
    std::vector<std::byte> body;
};

/// Cuts the stream from the service into messages. Trusts nothing of it, and calls nothing of
/// Windows.
///
/// Thread: one at a time. After an exception the place in the stream is lost.
class MessageReader {
public:
    /// Where the next bytes of the stream go: never empty, and never beyond the message that is
    /// being read. Valid until the next call of Received().
    std::span<std::byte> Target() noexcept;

    /// Takes the first `count` bytes of Target(). The message, if that makes it whole: checked as
    /// far as that goes without knowing what was asked.
    /// Throws Error kBadAnswer for a header that the service would never send.
    std::optional<Message> Received(std::size_t count);

    /// Whether a part of a message has come.
    bool InTheMiddle() const noexcept { return headerComplete || received != 0; }

private:
    Message message{};
    std::size_t received = 0;  // bytes of the header, or of the body once that has its size
    bool headerComplete = false;
};

}  // namespace orvik
