#pragma once

#include <cstddef>
#include <string>

#include <windows.h>

#include "import_hook.h"

extern "C" {
extern decltype(&::ReadFile) __imp_ReadFile;
extern decltype(&::WriteFile) __imp_WriteFile;
extern decltype(&::DeviceIoControl) __imp_DeviceIoControl;
extern decltype(&::GetQueuedCompletionStatus) __imp_GetQueuedCompletionStatus;
}

/// The I/O calls of this program while it lives, each of which goes through to Windows, as a text:
/// "Q R16 D65601 R16 Q W16": R ReadFile, W WriteFile, D DeviceIoControl, each with the size asked
/// for; Q a packet dequeued from a port, but for those with the key 0, the clients' in these tests.
class CallLog {
public:
    CallLog()
        : read(&__imp_ReadFile, Read),
          write(&__imp_WriteFile, Write),
          control(&__imp_DeviceIoControl, Control),
          dequeue(&__imp_GetQueuedCompletionStatus, Dequeue) {
        current = this;
        text.reserve(10000);
    }
    ~CallLog() { current = nullptr; }

    CallLog(const CallLog&) = delete;
    CallLog& operator=(const CallLog&) = delete;

    std::string text;

private:
    void Add(char what, std::size_t size) {
        text += (text.empty() ? "" : " ");
        text += what;
        if (size != 0)
            text += std::to_string(size);
    }
    static BOOL WINAPI Read(HANDLE file, LPVOID to, DWORD size, LPDWORD done, LPOVERLAPPED state) {
        current->Add('R', size);
        return current->read.Original()(file, to, size, done, state);
    }
    static BOOL WINAPI Write(HANDLE file, LPCVOID from, DWORD size, LPDWORD done,
                             LPOVERLAPPED state) {
        current->Add('W', size);
        return current->write.Original()(file, from, size, done, state);
    }
    static BOOL WINAPI Control(HANDLE device, DWORD code, LPVOID in, DWORD inSize, LPVOID out,
                               DWORD outSize, LPDWORD done, LPOVERLAPPED state) {
        current->Add('D', inSize);
        return current->control.Original()(device, code, in, inSize, out, outSize, done, state);
    }
    static BOOL WINAPI Dequeue(HANDLE port, LPDWORD bytes, PULONG_PTR key, LPOVERLAPPED* operation,
                               DWORD wait) {
        const BOOL result = current->dequeue.Original()(port, bytes, key, operation, wait);
        // The client of the test has its packets on the same port, under the key 0.
        if (*key != 0)
            current->Add('Q', 0);
        return result;
    }

    static inline CallLog* current = nullptr;
    ImportHook<decltype(&::ReadFile)> read;
    ImportHook<decltype(&::WriteFile)> write;
    ImportHook<decltype(&::DeviceIoControl)> control;
    ImportHook<decltype(&::GetQueuedCompletionStatus)> dequeue;
};
