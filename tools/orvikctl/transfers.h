#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "mailbox.h"
#include "orvik/client.h"

/// Sends commands to one camera. Any number can be outstanding; their results are returned in the
/// order in which they were started.
///
/// Commands that are outstanding when this object is destroyed, or when a call has thrown, end when
/// the client is destroyed.
class Transfers {
public:
    /// `answerTime` is the time limit of each Finish(). `cameraClient` must outlive this object.
    Transfers(orvik::Client& cameraClient, orvik::CameraId cameraId,
              std::chrono::milliseconds answerTime);

    // As StartTransferIn() etc. of the client. All throw orvik::Error.
    void StartIn(std::span<const std::byte> cdb);
    void StartOut(std::span<const std::byte> cdb, std::span<const std::byte> data);
    void StartNoData(std::span<const std::byte> cdb);

    std::uint64_t Outstanding() const noexcept { return started - finished; }

    /// Waits for the oldest outstanding command and returns the data that it received. Calls
    /// `meanwhile`, unless it is empty, about ten times a second while it waits.
    /// Throws orvik::Error, and Failure with ExitCode::kCancelled on Ctrl-C.
    std::vector<std::byte> Finish(const std::function<void()>& meanwhile = {});

private:
    using Ended = std::pair<std::uint64_t, orvik::TransferResult>;

    orvik::Completion NewCompletion();

    orvik::Client& client;
    const orvik::CameraId camera;
    const std::chrono::milliseconds timeout;
    // Shared with the completions, one of which may still be running when this is destroyed.
    std::shared_ptr<Mailbox<Ended>> mailbox = std::make_shared<Mailbox<Ended>>();
    std::map<std::uint64_t, orvik::TransferResult> early;  // not yet returned by Finish()
    std::uint64_t started = 0;
    std::uint64_t finished = 0;
};
