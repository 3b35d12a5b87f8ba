#include "refusal.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "cancellation.h"
#include "transfers.h"

namespace {

/// A camera that refuses REQUEST SENSE too has probably been unplugged. The service's report of it
/// can be this late on a busy machine.
constexpr std::chrono::milliseconds kGoneTime{1'000};
constexpr DWORD kMillisecondsBetweenLooks = 100;

constexpr std::chrono::milliseconds kSenseTime{5'000};

/// Throws orvik::Error.
SenseData RequestSense(orvik::Client& client, const CameraOptions& options,
                       orvik::CameraId camera) {
    Transfers transfers(client, camera, std::min(options.timeout, kSenseTime));
    transfers.StartIn(orvik::RequestSenseCdb());
    std::vector<std::byte> bytes = transfers.Finish();
    return {orvik::DecodeSense(bytes), std::move(bytes)};
}

std::string Words(const orvik::Sense& sense) {
    constexpr std::uint8_t kNoSense = 0;
    if (sense.key == kNoSense)
        return sense.text + ", perhaps because Windows' driver has asked for it already";
    return sense.deferred ? sense.text + " (about an earlier command)" : sense.text;
}

/// Looks once. Throws as ThrowRefusal() does, and orvik::Error of the kind kRefused if the camera
/// refuses REQUEST SENSE too.
void Look(const Settings& settings, const CameraOptions& options, orvik::CameraId camera,
          const std::string& text) {
    // A new connection: only the main communicator hears of a camera that has gone, and a command
    // for a camera that the service does not know ends the service's run.
    orvik::Client client = Connect(settings);
    const std::vector<orvik::CameraId> cameras = client.Cameras();
    if (std::find(cameras.begin(), cameras.end(), camera) == cameras.end())
        throw orvik::Error(
            orvik::ErrorKind::kCameraGone,
            "camera " + std::to_string(camera) + " was unplugged, or given up, during the command");
    if (!options.askForSense)
        throw Refusal(text, std::nullopt);
    SenseData sense = RequestSense(client, options, camera);
    throw Refusal(text + ". Sense data: " + Words(sense.sense), std::move(sense));
}

}  // namespace

void ThrowRefusal(const Settings& settings, const CameraOptions& options, orvik::CameraId camera,
                  const orvik::Error& refused) {
    const std::string text = refused.what();
    const auto deadline = std::chrono::steady_clock::now() + kGoneTime;
    while (true) {
        try {
            Look(settings, options, camera, text);
        } catch (const orvik::Error& error) {
            if (error.Kind() == orvik::ErrorKind::kCameraGone)
                throw;
            if (error.Kind() != orvik::ErrorKind::kRefused ||
                std::chrono::steady_clock::now() > deadline)
                throw Refusal(text + ". Sense data: not available: " + error.what(), std::nullopt);
        }
        // There is no event: a client that is not the main communicator gets no report.
        ::WaitForSingleObject(CancellationEvent(), kMillisecondsBetweenLooks);
        ThrowIfCancelled();
    }
}
