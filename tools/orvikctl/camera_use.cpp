#include "camera_use.h"

#include <string>
#include <vector>

#include "exit_code.h"
#include "refusal.h"

namespace {

/// The wanted camera or, if none is wanted, the only one. Throws Failure if there is none or more
/// than one.
orvik::CameraId ChooseCamera(const orvik::Client& client,
                             const std::optional<orvik::CameraId>& wanted) {
    if (wanted)
        return *wanted;  // the client library refuses one that is not present
    const std::vector<orvik::CameraId> cameras = client.Cameras();
    if (cameras.empty())
        throw Failure(ExitCode::kNoSuchCamera, "no camera is present");
    if (cameras.size() > 1) {
        std::string text = "--camera must be given, because several cameras are present:";
        for (const orvik::CameraId camera : cameras)
            text += " " + std::to_string(camera);
        throw Failure(ExitCode::kUsage, text);
    }
    return cameras.front();
}

}  // namespace

void UseCamera(const Settings& settings, const CameraOptions& options,
               const std::function<void(Transfers& transfers, orvik::CameraId camera)>& use) {
    orvik::Client client = Connect(settings);
    const orvik::CameraId camera = ChooseCamera(client, options.camera);
    Transfers transfers(client, camera, options.timeout);
    try {
        use(transfers, camera);
    } catch (const orvik::Error& error) {
        if (error.Kind() != orvik::ErrorKind::kRefused)
            throw;
        ThrowRefusal(settings, options, camera, error);
    }
}
