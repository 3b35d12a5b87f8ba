// The kernel's headers, and helpers for the whole driver. There is no C++ runtime
// in a driver: no exceptions, no new, no static objects with constructors.
#pragma once

#ifdef __MINGW32__
// mingw-w64's wdm.h defines these two again, in a way that is invalid in C++: rename its versions.
#include <intrin.h>
#define InterlockedBitTestAndSet WdmInterlockedBitTestAndSet
#define InterlockedBitTestAndReset WdmInterlockedBitTestAndReset
#endif
#include <ntddk.h>
#ifdef __MINGW32__
#undef InterlockedBitTestAndSet
#undef InterlockedBitTestAndReset
#endif
#include <ntddstor.h>
// After ntddk.h, whose types it needs.
#include <ntddscsi.h>

namespace vcam {

inline constexpr ULONG kPoolTag = 0x6d616356;  // "Vcam" in memory

/// Zeroed memory that may be touched at any IRQL; null when there is none. FreePool() frees it.
inline void* AllocatePool(SIZE_T bytes) {
    void* const memory = ExAllocatePoolWithTag(NonPagedPoolNx, bytes, kPoolTag);
    if (memory != nullptr)
        RtlZeroMemory(memory, bytes);
    return memory;
}

inline void FreePool(void* memory) {
    if (memory != nullptr)
        ExFreePoolWithTag(memory, kPoolTag);
}

/// Holds a spin lock for a scope. The code in the scope runs at DISPATCH_LEVEL: it must access only
/// non-paged memory, and must not wait or complete an IRP.
class SpinLockGuard {
public:
    explicit SpinLockGuard(KSPIN_LOCK* held) : lock(held) { KeAcquireSpinLock(lock, &irql); }
    ~SpinLockGuard() { KeReleaseSpinLock(lock, irql); }
    SpinLockGuard(const SpinLockGuard&) = delete;
    SpinLockGuard& operator=(const SpinLockGuard&) = delete;

private:
    KSPIN_LOCK* lock;
    KIRQL irql;
};

/// Completes an IRP to which no other thread has access. The IRP is gone on return.
inline NTSTATUS Complete(IRP* irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

}  // namespace vcam
