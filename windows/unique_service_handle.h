#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>

/// Closes what OpenSCManagerW, OpenServiceW and CreateServiceW return; those fail with null.
struct ServiceHandleCloser {
    using pointer = SC_HANDLE;
    void operator()(SC_HANDLE handle) const noexcept { ::CloseServiceHandle(handle); }
};
using UniqueServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceHandleCloser>;
