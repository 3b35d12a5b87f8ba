#include "service/dispatcher.h"

#include <iostream>

#include "device/io_operation.h"
#include "device/windows_exception.h"

bool DispatchCompletion(HANDLE completionPort) {
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    if (::GetQueuedCompletionStatus(completionPort, &bytes, &key, &overlapped, INFINITE)) {
        IoOperation* const operation = IoOperation::FromOverlapped(overlapped);
        if (operation->status == IoOperation::kQuit) {
            delete operation;
            return false;
        }
        operation->Complete(bytes, key);
        return true;
    }

    const DWORD error = ::GetLastError();
    std::cout << "GetQueuedCompletionStatus returned FALSE: " << error << std::endl;
    if (overlapped == nullptr) {
        ::SetLastError(error);  // the line above may have changed it
        throw WindowsException();
    }
    // Kept on purpose: the key is decimal, although the text says hexadecimal.
    std::cout << "CompletionKey: 0x" << key << std::endl;

    IoOperation* const operation = IoOperation::FromOverlapped(overlapped);
    if (error == ERROR_OPERATION_ABORTED) {
        DiscardOperation(operation);
    } else {
        ::SetLastError(error);  // for handlers that throw a WindowsException
        operation->Error(error);
    }
    return true;
}

void RunDispatcher(HANDLE completionPort) {
    while (DispatchCompletion(completionPort)) {
    }
}
