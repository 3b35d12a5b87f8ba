#include "transfers.h"

#include <algorithm>
#include <optional>
#include <string>

Transfers::Transfers(orvik::Client& cameraClient, orvik::CameraId cameraId,
                     std::chrono::milliseconds answerTime)
    : client(cameraClient),
      camera(cameraId),
      timeout(answerTime) {}

void Transfers::StartIn(std::span<const std::byte> cdb) {
    client.StartTransferIn(camera, cdb, NewCompletion());
    ++started;
}

void Transfers::StartOut(std::span<const std::byte> cdb, std::span<const std::byte> data) {
    client.StartTransferOut(camera, cdb, data, NewCompletion());
    ++started;
}

void Transfers::StartNoData(std::span<const std::byte> cdb) {
    client.StartTransferNoData(camera, cdb, NewCompletion());
    ++started;
}

orvik::Completion Transfers::NewCompletion() {
    return [mailbox = mailbox, number = started](orvik::TransferResult result) {
        mailbox->Put({number, std::move(result)});
    };
}

std::vector<std::byte> Transfers::Finish(const std::function<void()>& meanwhile) {
    constexpr std::chrono::milliseconds kBetweenCalls{100};
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + timeout;
    while (!early.contains(finished)) {
        std::optional<Ended> ended =
            mailbox->Take(meanwhile ? std::min(deadline, Clock::now() + kBetweenCalls) : deadline);
        if (meanwhile)
            meanwhile();
        if (!ended && Clock::now() < deadline)
            continue;
        if (!ended)
            throw orvik::Error(orvik::ErrorKind::kTimedOut,
                               "camera " + std::to_string(camera) + " did not answer within " +
                                   std::to_string(timeout.count()) +
                                   " ms (--timeout): it is slow, or the service is busy with a "
                                   "command of another program");
        early.insert(std::move(*ended));
    }
    orvik::TransferResult result = std::move(early.extract(finished).mapped());
    const bool first = finished++ == 0;
    if (result.error && result.error->Kind() == orvik::ErrorKind::kServiceGone && first)
        throw orvik::Error(
            orvik::ErrorKind::kServiceGone,
            std::string(result.error->what()) +
                ". The first command to a camera opens it, and the service ends if that fails: "
                "another program, such as Explorer, AutoPlay or a virus scanner, may have the "
                "camera open. Try again");
    if (result.error)
        throw orvik::Error(*result.error);
    return std::move(result.data);
}
