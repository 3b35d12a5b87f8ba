#include "client/pipe_instance.h"

#include <algorithm>

#include <windows.h>

namespace orvik {

UniqueHandle OpenPipeInstance(const std::wstring& pipeName) noexcept {
    // The service may learn who its client is, but not act in the client's name.
    return OwnFile(::CreateFileW(
        pipeName.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
        FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
}

DWORD ServerProcess(HANDLE pipe) noexcept {
    ULONG process = 0;
    return ::GetNamedPipeServerProcessId(pipe, &process) ? process : 0;
}

bool WaitForPipeInstance(const std::wstring& pipeName, const Deadline& deadline) noexcept {
    // 0 would mean the pipe's own default.
    return ::WaitNamedPipeW(pipeName.c_str(), std::max<DWORD>(deadline.Left(), 1)) != FALSE;
}

}  // namespace orvik
