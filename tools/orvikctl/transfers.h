#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "mailbox.h"
#include "orvik/client.h"

/// Commands on their way to one camera and back. Any number can be outstanding; their results are
/// fetched in the order in which they were started.
///
/// Those that are outstanding when this is destroyed, or when something was thrown, end with the
/// client.
class Transfers {
public:
    /// `answerTime` is how long Finish() waits. `client` must outlive this.
    Transfers(orvik::Client& cameraClient, orvik::CameraId cameraId,
              std::chrono::milliseconds answerTime);

    // As the client's functions of these names. All throw orvik::Error.
    void StartIn(std::span<const std::byte> cdb);
    void StartOut(std::span<const std::byte> cdb, std::span<const std::byte> data);
    void StartNoData(std::span<const std::byte> cdb);

    std::uint64_t Outstanding() const noexcept { return started - finished; }

    /// Waits for the oldest outstanding command; the data that it has returned.
    /// Throws orvik::Error, and Failure with ExitCode::kCancelled on Ctrl-C.
    std::vector<std::byte> Finish();

private:
    using Ended = std::pair<std::uint64_t, orvik::TransferResult>;

    orvik::Completion NewCompletion();

    orvik::Client& client;
    const orvik::CameraId camera;
    const std::chrono::milliseconds timeout;
    // Shared with the completions, one of which may still be ending when this goes.
    std::shared_ptr<Mailbox<Ended>> mailbox = std::make_shared<Mailbox<Ended>>();
    std::map<std::uint64_t, orvik::TransferResult> early;  // ended before their turn
    std::uint64_t started = 0;
    std::uint64_t finished = 0;
};
