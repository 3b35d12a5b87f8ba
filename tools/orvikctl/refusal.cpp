#include "refusal.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "cancellation.h"
#include "transfers.h"

namespace {

/// The service's report of a camera that was unplugged can be this late on a busy machine.
constexpr std::chrono::milliseconds kGoneTime{1'000};
constexpr DWORD kMillisecondsBetweenLooks = 100;

constexpr std::chrono::milliseconds kSenseTime{5'000};

/// Throws orvik::Error.
SenseData RequestSense(orvik::Client& client, const CameraOptions& options,
                       orvik::CameraId camera) {
    const std::chrono::milliseconds timeout = std::min(options.timeout, kSenseTime);
    Transfers transfers(client, camera, timeout);
    transfers.StartIn(orvik::RequestSenseCdb());
    try {
        return {std::nullopt, transfers.Finish()};
    } catch (const orvik::Error& error) {
        if (error.Kind() != orvik::ErrorKind::kTimedOut)
            throw;
        // Transfers names --timeout, but the time here is another one.
        throw orvik::Error(error.Kind(), "camera " + std::to_string(camera) +
                                             " did not answer REQUEST SENSE within " +
                                             std::to_string(timeout.count()) + " ms");
    }
}

std::string Words(const orvik::Sense& sense) {
    constexpr std::uint8_t kNoSense = 0;
    if (sense.key == kNoSense)
        return sense.text + ", perhaps because Windows' driver has asked for it already";
    return sense.deferred ? sense.text + " (about an earlier command)" : sense.text;
}

/// `text` with what the sense data says.
Refusal Explained(const std::string& text, SenseData data) {
    std::string words;
    try {
        data.sense = orvik::DecodeSense(data.bytes);
        words = Words(*data.sense);
    } catch (const orvik::Error& error) {
        words = std::string("cannot be decoded: ") + error.what();
    }
    return {text + ". Sense data: " + words, std::move(data)};
}

bool IsPresent(const orvik::Client& client, orvik::CameraId camera) {
    const std::vector<orvik::CameraId> cameras = client.Cameras();
    return std::find(cameras.begin(), cameras.end(), camera) != cameras.end();
}

/// Throws orvik::Error.
Refusal Explain(const Settings& settings, const CameraOptions& options, orvik::CameraId camera,
                const std::string& text) {
    // A new connection: only the main communicator hears of a camera that has gone, and a command
    // for a camera that the service does not know ends the service's run.
    orvik::Client client = Connect(settings);
    if (!IsPresent(client, camera))
        throw CameraGone(camera);
    if (!options.askForSense)
        return {text, std::nullopt};
    return Explained(text, RequestSense(client, options, camera));
}

}  // namespace

bool HasGone(const Settings& settings, orvik::CameraId camera) {
    const auto deadline = std::chrono::steady_clock::now() + kGoneTime;
    try {
        // There is no event: a client that is not the main communicator gets no report.
        while (IsPresent(Connect(settings), camera)) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            ::WaitForSingleObject(CancellationEvent(), kMillisecondsBetweenLooks);
            ThrowIfCancelled();
        }
    } catch (const orvik::Error&) {
        return false;
    }
    return true;
}

orvik::Error CameraGone(orvik::CameraId camera) {
    return {orvik::ErrorKind::kCameraGone,
            "camera " + std::to_string(camera) + " was unplugged, or given up, during the command"};
}

void ThrowRefusal(const Settings& settings, const CameraOptions& options, orvik::CameraId camera,
                  const orvik::Error& refused) {
    const std::string text = refused.what();
    try {
        throw Explain(settings, options, camera, text);
    } catch (const orvik::Error& error) {
        if (error.Kind() == orvik::ErrorKind::kCameraGone)
            throw;
        // A camera that refuses REQUEST SENSE too has probably been unplugged. It is not asked
        // again, for the service may remove it at any moment, and a command for it then ends the
        // service's run.
        if (error.Kind() == orvik::ErrorKind::kNoSuchCamera ||
            (error.Kind() == orvik::ErrorKind::kRefused && HasGone(settings, camera)))
            throw CameraGone(camera);
        throw Refusal(text + ". Sense data: not available: " + error.what(), std::nullopt);
    }
}
