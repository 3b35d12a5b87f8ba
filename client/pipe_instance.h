#pragma once

#include <string>

#include <windows.h>

#include "client/deadline.h"
#include "windows/unique_handle.h"

namespace orvik {

/// Opens the instance of the pipe that waits for a client, for overlapped use. Empty if that fails;
/// then GetLastError() says why. Thread: any.
UniqueHandle OpenPipeInstance(const std::wstring& pipeName) noexcept;

/// The process that serves this end's instance of the pipe; 0 if the system does not say. Then
/// GetLastError() says why. Thread: any.
DWORD ServerProcess(HANDLE pipe) noexcept;

/// Waits until an instance of the pipe waits for a client; false if the deadline passes first, or
/// there is no such pipe. Another client may still be faster to open that instance. Thread: any.
bool WaitForPipeInstance(const std::wstring& pipeName, const Deadline& deadline) noexcept;

}  // namespace orvik
