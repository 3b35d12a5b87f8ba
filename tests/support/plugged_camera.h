#pragma once

#include <exception>
#include <iostream>

#include "camera_setup.h"
#include "virtual_camera.h"

/// A virtual camera that is plugged while this object lives.
class PluggedCamera {
public:
    explicit PluggedCamera(vcam::Bus& onBus, const vcam::PlugOptions& options = {})
        : bus(&onBus),
          id(onBus.Plug(options)) {}
    ~PluggedCamera() { Unplug(); }

    PluggedCamera(const PluggedCamera&) = delete;
    PluggedCamera& operator=(const PluggedCamera&) = delete;

    void Unplug() noexcept {
        if (id == 0)
            return;
        try {
            bus->Unplug(id);
        } catch (const std::exception& exception) {
            std::cerr << exception.what() << '\n';  // the next test unplugs what is left
        }
        id = 0;
    }

    /// The bus's identifier, which is not the one that the service gives.
    vcam::CameraId Id() const noexcept { return id; }

    void Set(const vcam::Behaviour& behaviour) { bus->SetBehaviour(id, behaviour); }
    vcam::CameraCounters Counters() const { return bus->Counters(id); }

    /// The last request that reached the driver.
    vcam::Request LastRequest() const { return bus->LastRequests(id, 1).at(0); }

private:
    vcam::Bus* bus;  // not owned
    vcam::CameraId id;
};
