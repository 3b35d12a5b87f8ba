#pragma once

#include <functional>
#include <thread>

#include <windows.h>

namespace orvik {

/// Has a function called when Windows reports that a disk or CD-ROM drive has arrived or been
/// removed. Windows reports that to every program that asks.
///
/// Owns a thread with a message-only window. Thread: made and destroyed on any thread.
class DeviceHints {
public:
    enum class Change { kArrived, kRemoved };

    /// `onChange` is called on the window's thread. It must return soon, because Windows waits, and
    /// it must not throw. Throws Error kSystem.
    explicit DeviceHints(std::function<void(Change)> onChange);

    /// Waits for a call in progress.
    ~DeviceHints();

    DeviceHints(const DeviceHints&) = delete;
    DeviceHints& operator=(const DeviceHints&) = delete;

    /// The class of the window. The tests find it by that name.
    static constexpr wchar_t kWindowClass[] = L"OrvikClientDeviceHints";

private:
    void CreateHintWindow();
    void DestroyHintWindow() noexcept;
    static LRESULT CALLBACK WindowProcedure(HWND window, UINT message, WPARAM wParam,
                                            LPARAM lParam);

    const std::function<void(Change)> changed;
    HWND window = nullptr;  // owned by the thread
    std::thread thread;
};

}  // namespace orvik
