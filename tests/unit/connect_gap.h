#pragma once

#include <functional>
#include <utility>

#include <windows.h>

#include "import_hook.h"

extern "C" decltype(&::ConnectNamedPipe) __imp_ConnectNamedPipe;

/// Does something between the creation of a pipe instance and its ConnectNamedPipe, which is also
/// between a new session's first read and its first notifications.
class ConnectGap {
public:
    explicit ConnectGap(std::function<void()> whatToDo)
        : action(std::move(whatToDo)),
          hook(&__imp_ConnectNamedPipe, Connect) {
        current = this;
    }
    ~ConnectGap() { current = nullptr; }

    ConnectGap(const ConnectGap&) = delete;
    ConnectGap& operator=(const ConnectGap&) = delete;

    DWORD error = 0;  ///< of the last ConnectNamedPipe

private:
    static BOOL WINAPI Connect(HANDLE pipe, LPOVERLAPPED overlapped) {
        current->action();
        const BOOL result = current->hook.Original()(pipe, overlapped);
        current->error = ::GetLastError();
        return result;
    }

    static inline ConnectGap* current = nullptr;
    std::function<void()> action;
    ImportHook<decltype(&::ConnectNamedPipe)> hook;
};
