#include "waiter.h"

namespace vcam {
namespace {

struct Waiter {
    LIST_ENTRY link;  // in Bus::waiters, or in the list of those to be completed
    Bus* bus;
    IRP* irp;
    WaitFor what;
    protocol::WaitRecord wait;
    NTSTATUS status;
};

ULONGLONG CounterOf(const Camera* camera, protocol::CounterKind kind) {
    switch (kind) {
        case protocol::CounterKind::kRequests:
            return camera->requests;
        case protocol::CounterKind::kOpens:
            return camera->opens;
        case protocol::CounterKind::kCloses:
            return camera->closes;
        case protocol::CounterKind::kPending:
            return camera->pending;
    }
    return 0;
}

/// Under the lock: the camera with this id, also while it is being removed, or null.
const Camera* FindAnyCamera(Bus* bus, ULONG id) {
    for (LIST_ENTRY* at = bus->cameras.Flink; at != &bus->cameras; at = at->Flink) {
        const Camera* const camera = CONTAINING_RECORD(at, Camera, link);
        if (camera->id == id)
            return camera;
    }
    return nullptr;
}

/// Under the lock: STATUS_PENDING while the condition does not hold.
NTSTATUS Check(Bus* bus, const Waiter& waiter) {
    const Camera* const camera = FindAnyCamera(bus, waiter.wait.id);
    if (waiter.what == WaitFor::kGone)
        return camera == nullptr || camera->gone ? STATUS_SUCCESS : STATUS_PENDING;
    if (camera == nullptr)
        return STATUS_DEVICE_NOT_CONNECTED;
    if (camera->unplugged)
        return STATUS_DEVICE_NOT_CONNECTED;
    if (waiter.what == WaitFor::kStarted && !NT_SUCCESS(camera->startStatus))
        return camera->startStatus;
    if (waiter.what == WaitFor::kStarted)
        return camera->started ? STATUS_SUCCESS : STATUS_PENDING;
    return CounterOf(camera, waiter.wait.counter) >= waiter.wait.atLeast ? STATUS_SUCCESS
                                                                         : STATUS_PENDING;
}

void CompleteWaiter(Waiter* waiter) {
    Complete(waiter->irp, waiter->status);
    FreePool(waiter);
}

void NTAPI CancelWaiter(DEVICE_OBJECT*, IRP* irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    Waiter* const waiter = static_cast<Waiter*>(irp->Tail.Overlay.DriverContext[0]);
    {
        SpinLockGuard guard(&waiter->bus->lock);
        RemoveEntryList(&waiter->link);
    }
    waiter->status = STATUS_CANCELLED;
    CompleteWaiter(waiter);
}

}  // namespace

NTSTATUS PendWaiter(Bus* bus, IRP* irp, WaitFor what, const protocol::WaitRecord& wait) {
    Waiter* const waiter = static_cast<Waiter*>(AllocatePool(sizeof(Waiter)));
    if (waiter == nullptr)
        return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
    waiter->bus = bus;
    waiter->irp = irp;
    waiter->what = what;
    waiter->wait = wait;
    irp->Tail.Overlay.DriverContext[0] = waiter;
    IoMarkIrpPending(irp);

    bool cancelled = false;
    {
        SpinLockGuard guard(&bus->lock);
        IoSetCancelRoutine(irp, CancelWaiter);
        if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr)
            cancelled = true;  // cancelled before there was a cancel routine to call
        else
            InsertTailList(&bus->waiters, &waiter->link);
    }
    if (cancelled) {
        waiter->status = STATUS_CANCELLED;
        CompleteWaiter(waiter);
    } else {
        CheckWaiters(bus);
    }
    return STATUS_PENDING;
}

void CheckWaiters(Bus* bus) {
    LIST_ENTRY ready;
    InitializeListHead(&ready);
    {
        SpinLockGuard guard(&bus->lock);
        for (LIST_ENTRY* at = bus->waiters.Flink; at != &bus->waiters;) {
            Waiter* const waiter = CONTAINING_RECORD(at, Waiter, link);
            at = at->Flink;
            const NTSTATUS status = Check(bus, *waiter);
            if (status == STATUS_PENDING || IoSetCancelRoutine(waiter->irp, nullptr) == nullptr)
                continue;
            waiter->status = status;
            RemoveEntryList(&waiter->link);
            InsertTailList(&ready, &waiter->link);
        }
    }
    while (!IsListEmpty(&ready)) {
        LIST_ENTRY* const entry = RemoveHeadList(&ready);
        CompleteWaiter(CONTAINING_RECORD(entry, Waiter, link));
    }
}

}  // namespace vcam
