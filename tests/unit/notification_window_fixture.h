#pragma once

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>
#include <shlwapi.h>

#include "device/drive_watch.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "service/notification_window.h"

extern "C" {
extern decltype(&::CreateWindowExW) __imp_CreateWindowExW;
extern decltype(&::GetLogicalDrives) __imp_GetLogicalDrives;
extern decltype(&::PathFileExistsW) __imp_PathFileExistsW;
extern decltype(&::PostQueuedCompletionStatus) __imp_PostQueuedCompletionStatus;
extern decltype(&::RegisterClassExW) __imp_RegisterClassExW;
extern decltype(&::RegisterDeviceNotificationW) __imp_RegisterDeviceNotificationW;
extern decltype(&::UnregisterDeviceNotification) __imp_UnregisterDeviceNotification;
}

/// The calls of Windows that the window's code makes while this lives, as a text each. The one that
/// `fails` names fails.
class WindowCalls {
public:
    WindowCalls()
        : registerClass(&__imp_RegisterClassExW, RegisterClassHook),
          createWindow(&__imp_CreateWindowExW, CreateWindowHook),
          drives(&__imp_GetLogicalDrives, Drives),
          exists(&__imp_PathFileExistsW, Exists),
          post(&__imp_PostQueuedCompletionStatus, Post),
          registerHook(&__imp_RegisterDeviceNotificationW, Register),
          unregister(&__imp_UnregisterDeviceNotification, Unregister) {
        current = this;
    }
    ~WindowCalls() { current = nullptr; }
    WindowCalls(const WindowCalls&) = delete;
    WindowCalls& operator=(const WindowCalls&) = delete;

    std::vector<std::string> made;
    std::string fails;
    WNDCLASSEXW windowClass{};
    DEV_BROADCAST_DEVICEINTERFACE_W filter{};
    DWORD interfaceFlags = 0;
    bool windowKnownAtScan = false;
    bool fakeUnregister = false;

private:
    bool Note(const std::string& call) {
        made.push_back(call);
        if (fails != call)
            return true;
        ::SetLastError(ERROR_GEN_FAILURE);
        return false;
    }
    static ATOM WINAPI RegisterClassHook(const WNDCLASSEXW* wanted) {
        current->windowClass = *wanted;
        return current->Note("class") ? current->registerClass.Original()(wanted) : ATOM{0};
    }
    static HWND WINAPI CreateWindowHook(DWORD extended, LPCWSTR name, LPCWSTR title, DWORD style,
                                        int x, int y, int width, int height, HWND parent,
                                        HMENU menu, HINSTANCE instance, LPVOID parameter) {
        EXPECT_EQ(extended, 0u);
        EXPECT_EQ(std::wstring(name), L"OrvikServiceClass");
        EXPECT_EQ(std::wstring(title), kServiceName);
        EXPECT_EQ(style, 0u);
        EXPECT_EQ(x, 0);
        EXPECT_EQ(y, 0);
        EXPECT_EQ(width, CW_USEDEFAULT);
        EXPECT_EQ(height, CW_USEDEFAULT);
        EXPECT_EQ(parent, HWND_MESSAGE);
        EXPECT_EQ(menu, nullptr);
        EXPECT_EQ(instance, ::GetModuleHandleW(nullptr));
        EXPECT_EQ(parameter, nullptr);
        if (!current->Note("window"))
            return nullptr;
        return current->createWindow.Original()(extended, name, title, style, x, y, width, height,
                                                parent, menu, instance, parameter);
    }
    static DWORD WINAPI Drives() {
        current->windowKnownAtScan = notificationWindow != nullptr;
        current->made.emplace_back("drives");
        return current->drives.Original()();
    }
    static BOOL WINAPI Exists(LPCWSTR path) {
        current->made.push_back("exists " + std::string(1, static_cast<char>(path[0])));
        return current->exists.Original()(path);
    }
    static BOOL WINAPI Post(HANDLE port, DWORD bytes, ULONG_PTR key, LPOVERLAPPED overlapped) {
        if (!current->Note("post"))
            return FALSE;
        return current->post.Original()(port, bytes, key, overlapped);
    }
    static HDEVNOTIFY WINAPI Register(HANDLE recipient, LPVOID filter, DWORD flags) {
        const auto* const header = static_cast<const DEV_BROADCAST_HDR*>(filter);
        const bool isInterface = header->dbch_devicetype == DBT_DEVTYP_DEVICEINTERFACE;
        if (isInterface) {
            std::memcpy(&current->filter, filter, sizeof(current->filter));
            current->interfaceFlags = flags;
        }
        if (!current->Note(isInterface ? "interfaces" : "volume"))
            return nullptr;
        return current->registerHook.Original()(recipient, filter, flags);
    }
    static BOOL WINAPI Unregister(HDEVNOTIFY notification) {
        current->made.emplace_back("unregister");
        return current->fakeUnregister || current->unregister.Original()(notification);
    }

    static inline WindowCalls* current = nullptr;
    ImportHook<decltype(&::RegisterClassExW)> registerClass;
    ImportHook<decltype(&::CreateWindowExW)> createWindow;
    ImportHook<decltype(&::GetLogicalDrives)> drives;
    ImportHook<decltype(&::PathFileExistsW)> exists;
    ImportHook<decltype(&::PostQueuedCompletionStatus)> post;
    ImportHook<decltype(&::RegisterDeviceNotificationW)> registerHook;
    ImportHook<decltype(&::UnregisterDeviceNotification)> unregister;
};

using Calls = std::vector<std::string>;

inline DEV_BROADCAST_HANDLE HandleRecord(HANDLE volume, const GUID& event = {}) {
    DEV_BROADCAST_HANDLE record{};
    record.dbch_size = sizeof(record);
    record.dbch_devicetype = DBT_DEVTYP_HANDLE;
    record.dbch_handle = volume;
    record.dbch_eventguid = event;
    return record;
}

template <typename Record>
LRESULT Send(WPARAM event, const Record& record) {
    return NotificationWndProc(nullptr, WM_DEVICECHANGE, event, reinterpret_cast<LPARAM>(&record));
}

class ServerWindowTest : public InProcessService {
protected:
    void SetUp() override {
        InProcessService::SetUp();
        StartServer();
        knownDrives = ::GetLogicalDrives();
    }
    void TearDown() override {
        theServer = nullptr;
        InProcessService::TearDown();
        knownDrives = 0;
    }
};
