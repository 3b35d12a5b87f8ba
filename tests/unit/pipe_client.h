#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include <boost/smart_ptr/shared_ptr.hpp>

#include "support/messages.h"
#include "test_port.h"

/// The other end of the camera pipe, as raw as possible: it writes what it is told and collects
/// what comes. Its own packets come through the port of the test, so that one thread plays both
/// sides and a test decides what happens before what.
class PipeClient {
public:
    enum class Reading { kAtOnce, kNever };

    /// Connects. Throws std::system_error. The service has not noticed before its packet is
    /// dispatched.
    explicit PipeClient(TestPort& port, Reading reading = Reading::kAtOnce);

    /// Closes the pipe, also with operations in progress.
    ~PipeClient();

    PipeClient(const PipeClient&) = delete;
    PipeClient& operator=(const PipeClient&) = delete;

    /// Starts one WriteFile of these bytes. Throws std::system_error if it fails at once.
    void Write(std::span<const std::byte> bytes);

    /// For a client made with kNever.
    void StartReading();

    /// Closes the pipe. The packets of operations in progress still come.
    void Close();

    std::size_t PendingWrites() const noexcept;

    /// The service has closed its end.
    bool HasEnded() const noexcept;

    std::size_t BytesReceived() const noexcept;

    /// The complete messages received so far.
    std::vector<Message> Messages() const;

private:
    struct State;
    boost::shared_ptr<State> state;  // shared with the callbacks of operations in progress
};
