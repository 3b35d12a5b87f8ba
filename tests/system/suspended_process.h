#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include "windows/unique_handle.h"

namespace system_test {

/// Suspends a process while this object lives.
class SuspendedProcess {
public:
    explicit SuspendedProcess(HANDLE process)
        : suspended(::OpenProcess(PROCESS_SUSPEND_RESUME, FALSE, ::GetProcessId(process))) {
        EXPECT_EQ(Call("NtSuspendProcess"), 0);
    }
    ~SuspendedProcess() { EXPECT_EQ(Call("NtResumeProcess"), 0); }

    SuspendedProcess(const SuspendedProcess&) = delete;
    SuspendedProcess& operator=(const SuspendedProcess&) = delete;

private:
    LONG Call(const char* function) const {
        const auto address = ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), function);
        // By way of void*, as the compiler warns of casts between function types.
        return reinterpret_cast<LONG(NTAPI*)(HANDLE)>(reinterpret_cast<void*>(address))(
            suspended.get());
    }

    const UniqueHandle suspended;
};

}  // namespace system_test
