#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "client/deadline.h"
#include "client/pipe_stream.h"
#include "session/message.h"

namespace orvik {

/// One message of the service.
struct Message {
    MessageHeader header;
    std::vector<std::byte> body;
};

/// Throws Error kBadAnswer for a header that the service would never send. Nothing of what the
/// service sends is trusted before.
void CheckHeader(const MessageHeader& header);

/// Cuts the stream from the service into messages.
///
/// Thread: one at a time. After an exception the place in the stream is lost.
class MessageReader {
public:
    /// The next message, whole and checked as far as that goes without knowing what was asked.
    /// Empty when the deadline has passed; what has come by then is kept for the next call.
    /// Throws Error: kBadAnswer, and what PipeStream::Read() throws.
    std::optional<Message> Read(PipeStream& pipe, const Deadline& deadline);

private:
    /// Reads until `target` is full. False when the deadline has passed.
    bool Fill(PipeStream& pipe, std::span<std::byte> target, const Deadline& deadline);

    // The system writes into these while a read is issued.
    Message message{};
    std::size_t received = 0;  // bytes of the header, or of the body once that has its size
    bool headerComplete = false;
};

}  // namespace orvik
