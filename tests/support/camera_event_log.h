// The events that a subscriber of a PersistentClient has received.
#pragma once

#include <string>

#include "orvik/persistent_client.h"
#include "word_log.h"

namespace client_test {

/// "+1.3" for camera 3 of generation 1 attached, "-1.3" for detached, "connected", and the kind of
/// the error for disconnected.
class CameraEventLog : public WordLog {
public:
    orvik::CameraEventHandler Handler() {
        return [this](const orvik::CameraEvent& event) { Add(Word(event)); };
    }

private:
    static std::string Word(const orvik::CameraEvent& event) {
        const std::string camera =
            std::to_string(event.camera.generation) + "." + std::to_string(event.camera.id);
        switch (event.kind) {
            case orvik::CameraEvent::Kind::kConnected:
                return "connected";
            case orvik::CameraEvent::Kind::kDisconnected:
                return std::string(ToString(event.error.value().Kind()));
            case orvik::CameraEvent::Kind::kCameraAttached:
                return "+" + camera;
            case orvik::CameraEvent::Kind::kCameraDetached:
                return "-" + camera;
        }
        return "unknown";
    }
};

}  // namespace client_test
