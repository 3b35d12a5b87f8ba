#include "client/device_hints.h"

#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>

#include <windows.h>

#include <dbt.h>

#include "client/event.h"
#include "client/module.h"
#include "orvik/client.h"
#include "windows/unique_handle.h"

namespace orvik {

namespace {

// As <winioctl.h> declares them. It defines them only together with <initguid.h>.
constexpr GUID kDiskInterface = {
    0x53F56307, 0xB6BF, 0x11D0, {0x94, 0xF2, 0x00, 0xA0, 0xC9, 0x1E, 0xFB, 0x8B}};
constexpr GUID kCdRomInterface = {
    0x53F56308, 0xB6BF, 0x11D0, {0x94, 0xF2, 0x00, 0xA0, 0xC9, 0x1E, 0xFB, 0x8B}};

/// The window class is registered while there are windows of it: a DLL that contains this library
/// may be unloaded afterwards.
std::mutex windowClassMutex;

struct Unregister {
    using pointer = HDEVNOTIFY;
    void operator()(HDEVNOTIFY notification) const noexcept {
        ::UnregisterDeviceNotification(notification);
    }
};
using Registration = std::unique_ptr<void, Unregister>;

Registration RegisterFor(HWND window, const GUID& interfaceClass) {
    DEV_BROADCAST_DEVICEINTERFACE_W filter{};
    filter.dbcc_size = sizeof(filter);
    filter.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    filter.dbcc_classguid = interfaceClass;
    Registration registration(
        ::RegisterDeviceNotificationW(window, &filter, DEVICE_NOTIFY_WINDOW_HANDLE));
    if (!registration)
        throw Error(ErrorKind::kSystem, "cannot register for device notifications",
                    ::GetLastError());
    return registration;
}

}  // namespace

DeviceHints::DeviceHints(std::function<void(Change)> onChange) : changed(std::move(onChange)) {
    // Not std::promise: with GCC's library for Windows, the first wait for it can lack memory,
    // after the thread has started.
    const UniqueHandle started = MakeEvent(false);
    std::exception_ptr failure;
    auto run = [this, startedEvent = started.get(), &failure] {
        Registration disks;
        Registration cdRoms;
        try {
            CreateHintWindow();
            disks = RegisterFor(window, kDiskInterface);
            cdRoms = RegisterFor(window, kCdRomInterface);
        } catch (...) {
            DestroyHintWindow();
            failure = std::current_exception();
            ::SetEvent(startedEvent);
            return;
        }
        ::SetEvent(startedEvent);
        MSG message;
        while (::GetMessageW(&message, nullptr, 0, 0) > 0)
            ::DispatchMessageW(&message);
        disks.reset();
        cdRoms.reset();
        DestroyHintWindow();
    };
    try {
        thread = std::thread(std::move(run));
    } catch (const std::system_error& error) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot start a thread for device notifications: ") + error.what());
    }
    ::WaitForSingleObject(started.get(), INFINITE);
    if (failure) {
        thread.join();
        std::rethrow_exception(failure);
    }
}

DeviceHints::~DeviceHints() {
    ::PostMessageW(window, WM_CLOSE, 0, 0);
    thread.join();
}

void DeviceHints::CreateHintWindow() {
    WNDCLASSEXW windowClass{};
    windowClass.cbSize = sizeof(windowClass);
    windowClass.lpfnWndProc = WindowProcedure;
    windowClass.hInstance = ThisModule();
    windowClass.lpszClassName = kWindowClass;
    const std::lock_guard lock(windowClassMutex);
    ::RegisterClassExW(&windowClass);  // fails if another object has registered it
    window = ::CreateWindowExW(0, kWindowClass, L"", 0, 0, 0, 0, 0, HWND_MESSAGE, nullptr,
                               windowClass.hInstance, this);
    if (window == nullptr)
        throw Error(ErrorKind::kSystem, "cannot create a window", ::GetLastError());
}

void DeviceHints::DestroyHintWindow() noexcept {
    const std::lock_guard lock(windowClassMutex);
    if (window != nullptr)
        ::DestroyWindow(window);
    ::UnregisterClassW(kWindowClass, ThisModule());  // fails while another object has a window
}

LRESULT CALLBACK DeviceHints::WindowProcedure(HWND window, UINT message, WPARAM wParam,
                                              LPARAM lParam) {
    switch (message) {
        case WM_NCCREATE: {
            const auto* const creation = reinterpret_cast<const CREATESTRUCTW*>(lParam);
            ::SetWindowLongPtrW(window, GWLP_USERDATA,
                                reinterpret_cast<LONG_PTR>(creation->lpCreateParams));
            break;
        }
        case WM_DEVICECHANGE: {
            const auto* const self =
                reinterpret_cast<const DeviceHints*>(::GetWindowLongPtrW(window, GWLP_USERDATA));
            if (wParam == DBT_DEVICEARRIVAL)
                self->changed(Change::kArrived);
            else if (wParam == DBT_DEVICEREMOVECOMPLETE)
                self->changed(Change::kRemoved);
            return TRUE;
        }
        case WM_CLOSE:
            // The registrations end before the window does.
            ::PostQuitMessage(0);
            return 0;
        default:
            break;
    }
    return ::DefWindowProcW(window, message, wParam, lParam);
}

}  // namespace orvik
