#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>

// Inline, because a program that links the client library may use the same names itself.
inline namespace orvik_internal {

/// Closes what OpenSCManagerW, OpenServiceW and CreateServiceW return; those fail with null.
struct ServiceHandleCloser {
    using pointer = SC_HANDLE;
    void operator()(SC_HANDLE handle) const noexcept { ::CloseServiceHandle(handle); }
};
using UniqueServiceHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, ServiceHandleCloser>;

}  // namespace orvik_internal
