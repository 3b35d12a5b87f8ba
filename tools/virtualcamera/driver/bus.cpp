// The bus: its device, its children, and the thread that completes delayed requests.

#include "virtual_bus.h"

#include "waiter.h"

// Declared in <ntifs.h>, which is for file systems.
extern "C" NTSYSAPI NTSTATUS NTAPI ZwWaitForSingleObject(HANDLE handle, BOOLEAN alertable,
                                                         LARGE_INTEGER* timeout);

namespace vcam {
namespace {

// The names by which programs open the control link.
constexpr wchar_t kBusDeviceName[] = L"\\Device\\OrvikVirtualCameraBus";
constexpr wchar_t kBusLinkName[] = L"\\DosDevices\\OrvikVirtualCamera";

UNICODE_STRING NameOf(const wchar_t* text) {
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, text);
    return name;
}

void NTAPI DelayThread(void* context) {
    Bus* const bus = static_cast<Bus*>(context);
    for (;;) {
        const LONGLONG remaining = EndDueRequests(bus);
        LARGE_INTEGER timeout;
        timeout.QuadPart = -remaining;  // negative: relative
        KeWaitForSingleObject(&bus->wake, Executive, KernelMode, FALSE,
                              remaining < 0 ? nullptr : &timeout);
        SpinLockGuard guard(&bus->lock);
        if (bus->stopThread)
            break;
    }
    PsTerminateSystemThread(STATUS_SUCCESS);
}

void AskThreadToStop(Bus* bus) {
    {
        SpinLockGuard guard(&bus->lock);
        bus->stopThread = true;
    }
    KeSetEvent(&bus->wake, IO_NO_INCREMENT, FALSE);
}

NTSTATUS StartDelayThread(Bus* bus) {
    HANDLE handle = nullptr;
    NTSTATUS status = PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                                           DelayThread, bus);
    if (!NT_SUCCESS(status))
        return status;
    status =
        ObReferenceObjectByHandle(handle, SYNCHRONIZE, nullptr, KernelMode, &bus->thread, nullptr);
    if (!NT_SUCCESS(status)) {
        // The thread runs, and would use the bus after the bus is deleted.
        bus->thread = nullptr;
        AskThreadToStop(bus);
        ZwWaitForSingleObject(handle, FALSE, nullptr);
    }
    ZwClose(handle);
    return status;
}

void StopDelayThread(Bus* bus) {
    if (bus->thread == nullptr)
        return;
    AskThreadToStop(bus);
    KeWaitForSingleObject(bus->thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(bus->thread);
    bus->thread = nullptr;
}

NTSTATUS NTAPI SignalEvent(DEVICE_OBJECT*, IRP*, void* event) {
    KeSetEvent(static_cast<KEVENT*>(event), IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS ForwardAndWait(Bus* bus, IRP* irp) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, SignalEvent, &done, TRUE, TRUE, TRUE);
    const NTSTATUS status = IoCallDriver(bus->lowerDevice, irp);
    if (status != STATUS_PENDING)
        return status;
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    return irp->IoStatus.Status;
}

NTSTATUS Forward(Bus* bus, IRP* irp) {
    IoSkipCurrentIrpStackLocation(irp);
    return IoCallDriver(bus->lowerDevice, irp);
}

NTSTATUS Start(Bus* bus, IRP* irp) {
    NTSTATUS status = ForwardAndWait(bus, irp);
    if (NT_SUCCESS(status)) {
        UNICODE_STRING link = NameOf(kBusLinkName);
        UNICODE_STRING name = NameOf(kBusDeviceName);
        // On a restart after a stop, the link still exists.
        if (!bus->started)
            status = IoCreateSymbolicLink(&link, &name);
        if (NT_SUCCESS(status))
            bus->started = true;
    }
    return Complete(irp, status);
}

/// Reports the plugged cameras to the PnP manager.
NTSTATUS QueryCameras(Bus* bus, IRP* irp) {
    ULONG capacity = 0;
    {
        SpinLockGuard guard(&bus->lock);
        capacity = bus->cameraCount;
    }
    // A camera that is plugged after this point causes another query.
    const auto* const before = reinterpret_cast<DEVICE_RELATIONS*>(irp->IoStatus.Information);
    const ULONG others = before != nullptr ? before->Count : 0;
    auto* const relations = static_cast<DEVICE_RELATIONS*>(ExAllocatePoolWithTag(
        PagedPool, sizeof(DEVICE_RELATIONS) + (others + capacity) * sizeof(DEVICE_OBJECT*),
        kPoolTag));
    auto** const devices = static_cast<DEVICE_OBJECT**>(
        capacity != 0 ? AllocatePool(capacity * sizeof(DEVICE_OBJECT*)) : nullptr);
    if (relations == nullptr || (capacity != 0 && devices == nullptr)) {
        FreePool(devices);
        FreePool(relations);
        return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
    }

    // The array of relations is paged, so it is filled outside the lock; the references keep the
    // devices alive until then, and afterwards they belong to the PnP manager.
    ULONG count = 0;
    {
        SpinLockGuard guard(&bus->lock);
        for (LIST_ENTRY* at = bus->cameras.Flink; at != &bus->cameras; at = at->Flink) {
            Camera* const camera = CONTAINING_RECORD(at, Camera, link);
            if (camera->unplugged)
                camera->reportedMissing = true;
            if (camera->unplugged || count == capacity)
                continue;
            camera->reported = true;
            ObReferenceObject(camera->device);
            devices[count++] = camera->device;
        }
    }
    relations->Count = others + count;
    if (others != 0)
        RtlCopyMemory(relations->Objects, before->Objects, others * sizeof(DEVICE_OBJECT*));
    if (count != 0)
        RtlCopyMemory(relations->Objects + others, devices, count * sizeof(DEVICE_OBJECT*));
    FreePool(devices);
    if (before != nullptr)
        ExFreePool(reinterpret_cast<void*>(irp->IoStatus.Information));
    irp->IoStatus.Information = reinterpret_cast<ULONG_PTR>(relations);
    irp->IoStatus.Status = STATUS_SUCCESS;
    return Forward(bus, irp);
}

/// Removes the first camera from the bus, which accepts no more; null when there is none.
Camera* TakeCamera(Bus* bus) {
    SpinLockGuard guard(&bus->lock);
    bus->removed = true;
    if (IsListEmpty(&bus->cameras))
        return nullptr;
    Camera* const camera = CONTAINING_RECORD(bus->cameras.Flink, Camera, link);
    TakeOffBus(camera);
    return camera;
}

NTSTATUS Remove(Bus* bus, IRP* irp) {
    if (bus->started) {
        UNICODE_STRING link = NameOf(kBusLinkName);
        IoDeleteSymbolicLink(&link);
    }
    StopDelayThread(bus);
    // The PnP manager has removed the cameras before the bus, but they were not reported as
    // missing, so they are still on the bus.
    while (Camera* const camera = TakeCamera(bus))
        DropCamera(camera);
    CheckWaiters(bus);
    irp->IoStatus.Status = STATUS_SUCCESS;
    const NTSTATUS status = Forward(bus, irp);
    IoDetachDevice(bus->lowerDevice);
    IoDeleteDevice(bus->device);
    return status;
}

}  // namespace

NTSTATUS NTAPI AddDevice(DRIVER_OBJECT* driver, DEVICE_OBJECT* physicalDevice) {
    UNICODE_STRING name = NameOf(kBusDeviceName);
    DEVICE_OBJECT* device = nullptr;
    NTSTATUS status = IoCreateDevice(driver, sizeof(Bus), &name, FILE_DEVICE_BUS_EXTENDER,
                                     FILE_DEVICE_SECURE_OPEN, FALSE, &device);
    if (!NT_SUCCESS(status))
        return status;

    Bus* const bus = static_cast<Bus*>(device->DeviceExtension);
    RtlZeroMemory(bus, sizeof(*bus));
    bus->kind = DeviceKind::kBus;
    bus->device = device;
    bus->physicalDevice = physicalDevice;
    KeInitializeSpinLock(&bus->lock);
    InitializeListHead(&bus->cameras);
    InitializeListHead(&bus->waiters);
    KeInitializeEvent(&bus->wake, SynchronizationEvent, FALSE);

    status = StartDelayThread(bus);
    if (NT_SUCCESS(status)) {
        bus->lowerDevice = IoAttachDeviceToDeviceStack(device, physicalDevice);
        if (bus->lowerDevice == nullptr)
            status = STATUS_NO_SUCH_DEVICE;
    }
    if (!NT_SUCCESS(status)) {
        StopDelayThread(bus);
        IoDeleteDevice(device);
        return status;
    }
    device->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
    device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
    return STATUS_SUCCESS;
}

NTSTATUS BusPnp(Bus* bus, IRP* irp) {
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    switch (stack->MinorFunction) {
        case IRP_MN_START_DEVICE:
            return Start(bus, irp);
        case IRP_MN_QUERY_DEVICE_RELATIONS:
            if (stack->Parameters.QueryDeviceRelations.Type == BusRelations)
                return QueryCameras(bus, irp);
            return Forward(bus, irp);
        case IRP_MN_REMOVE_DEVICE:
            return Remove(bus, irp);
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_STOP_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
        case IRP_MN_SURPRISE_REMOVAL:
            irp->IoStatus.Status = STATUS_SUCCESS;
            return Forward(bus, irp);
        default:
            return Forward(bus, irp);
    }
}

}  // namespace vcam
