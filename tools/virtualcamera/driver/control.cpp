// The control link: the requests of the control library.

#include "virtual_bus.h"

#include "waiter.h"

namespace vcam {
namespace {

/// The buffers of one control request. Input and output share the memory.
struct ControlBuffers {
    UCHAR* bytes;
    ULONG inputLength;
    ULONG outputLength;
};

/// Copies a fixed record from the start of the input; false when the input is shorter.
template <typename Record>
bool ReadRecord(const ControlBuffers& buffers, Record* record) {
    if (buffers.inputLength < sizeof(Record))
        return false;
    RtlCopyMemory(record, buffers.bytes, sizeof(Record));
    return true;
}

NTSTATUS Plug(Bus* bus, const ControlBuffers& buffers, ULONG* written) {
    if (buffers.inputLength < sizeof(protocol::PlugRecord) || buffers.outputLength < sizeof(ULONG))
        return STATUS_INVALID_PARAMETER;
    ULONG id = 0;
    const NTSTATUS status =
        CreateCamera(bus, *reinterpret_cast<const protocol::PlugRecord*>(buffers.bytes), &id);
    if (!NT_SUCCESS(status))
        return status;
    IoInvalidateDeviceRelations(bus->physicalDevice, BusRelations);
    *reinterpret_cast<ULONG*>(buffers.bytes) = id;
    *written = sizeof(id);
    return STATUS_SUCCESS;
}

NTSTATUS WaitStarted(Bus* bus, IRP* irp, const ControlBuffers& buffers) {
    ULONG id = 0;
    if (!ReadRecord(buffers, &id))
        return Complete(irp, STATUS_INVALID_PARAMETER);
    return PendWaiter(bus, irp, WaitFor::kStarted, {0, id, {}});
}

NTSTATUS Unplug(Bus* bus, IRP* irp, const ControlBuffers& buffers) {
    ULONG id = 0;
    if (!ReadRecord(buffers, &id))
        return Complete(irp, STATUS_INVALID_PARAMETER);
    Camera* unseen = nullptr;  // not yet reported to the PnP manager, which will not remove it
    {
        SpinLockGuard guard(&bus->lock);
        Camera* const camera = FindCamera(bus, id);
        if (camera == nullptr) {
            id = 0;
        } else {
            camera->unplugged = true;
            if (!camera->reported && TakeOffBus(camera))
                unseen = camera;
        }
    }
    if (id == 0)
        return Complete(irp, STATUS_DEVICE_NOT_CONNECTED);
    if (unseen != nullptr) {
        DropCamera(unseen);
        return Complete(irp, STATUS_SUCCESS);
    }
    CheckWaiters(bus);
    IoInvalidateDeviceRelations(bus->physicalDevice, BusRelations);
    return PendWaiter(bus, irp, WaitFor::kGone, {0, id, {}});
}

NTSTATUS List(Bus* bus, const ControlBuffers& buffers, ULONG* written) {
    SpinLockGuard guard(&bus->lock);
    ULONG* ids = reinterpret_cast<ULONG*>(buffers.bytes);
    for (LIST_ENTRY* at = bus->cameras.Flink; at != &bus->cameras; at = at->Flink) {
        const Camera* const camera = CONTAINING_RECORD(at, Camera, link);
        if (camera->unplugged)
            continue;
        if (buffers.outputLength - *written < sizeof(ULONG))
            return STATUS_BUFFER_TOO_SMALL;
        *ids++ = camera->id;
        *written += sizeof(ULONG);
    }
    return STATUS_SUCCESS;
}

NTSTATUS Info(Bus* bus, const ControlBuffers& buffers, ULONG* written) {
    ULONG id = 0;
    if (!ReadRecord(buffers, &id) || buffers.outputLength < sizeof(protocol::InfoRecord))
        return STATUS_INVALID_PARAMETER;
    auto* const info = reinterpret_cast<protocol::InfoRecord*>(buffers.bytes);
    SpinLockGuard guard(&bus->lock);
    const Camera* const camera = FindCamera(bus, id);
    if (camera == nullptr)
        return STATUS_DEVICE_NOT_CONNECTED;
    RtlZeroMemory(info, sizeof(*info));
    info->plug = camera->plug;
    const UNICODE_STRING& name = camera->interfaceName;
    if (camera->started && name.Length <= protocol::kInterfaceNameCharacters * sizeof(wchar_t))
        RtlCopyMemory(info->interfaceName, name.Buffer, name.Length);
    *written = sizeof(*info);
    return STATUS_SUCCESS;
}

NTSTATUS SetBehaviour(Bus* bus, const ControlBuffers& buffers) {
    if (buffers.inputLength < sizeof(protocol::BehaviourRecord))
        return STATUS_INVALID_PARAMETER;
    const auto* const record = reinterpret_cast<const protocol::BehaviourRecord*>(buffers.bytes);
    // An IRP cannot be completed with "pending".
    if (record->descriptorLength > protocol::kDescriptorBytes ||
        record->completionStatus == STATUS_PENDING || record->immediateStatus == STATUS_PENDING)
        return STATUS_INVALID_PARAMETER;
    SpinLockGuard guard(&bus->lock);
    Camera* const camera = FindCamera(bus, record->id);
    if (camera == nullptr)
        return STATUS_DEVICE_NOT_CONNECTED;
    camera->behaviour = *record;
    return STATUS_SUCCESS;
}

NTSTATUS Counters(Bus* bus, const ControlBuffers& buffers, ULONG* written) {
    ULONG id = 0;
    if (!ReadRecord(buffers, &id) || buffers.outputLength < sizeof(protocol::CountersRecord))
        return STATUS_INVALID_PARAMETER;
    SpinLockGuard guard(&bus->lock);
    const Camera* const camera = FindCamera(bus, id);
    if (camera == nullptr)
        return STATUS_DEVICE_NOT_CONNECTED;
    *reinterpret_cast<protocol::CountersRecord*>(buffers.bytes) = {camera->requests, camera->opens,
                                                                   camera->closes, camera->pending};
    *written = sizeof(protocol::CountersRecord);
    return STATUS_SUCCESS;
}

NTSTATUS AccessMemory(Bus* bus, const ControlBuffers& buffers, bool write, ULONG* written) {
    protocol::MemoryRecord record;
    if (!ReadRecord(buffers, &record))
        return STATUS_INVALID_PARAMETER;
    const ULONG room = write ? buffers.inputLength - ULONG{sizeof(record)} : buffers.outputLength;
    if (record.length > room)
        return STATUS_INVALID_PARAMETER;
    SpinLockGuard guard(&bus->lock);
    Camera* const camera = FindCamera(bus, record.id);
    if (camera == nullptr)
        return STATUS_DEVICE_NOT_CONNECTED;
    const ULONGLONG size = ULONGLONG{camera->unit.blockCount} * protocol::kBlockBytes;
    if (record.offset > size || record.length > size - record.offset)
        return STATUS_INVALID_PARAMETER;
    UCHAR* const memory = camera->unit.memory + record.offset;
    if (write) {
        RtlCopyMemory(memory, buffers.bytes + sizeof(record), record.length);
    } else {
        RtlCopyMemory(buffers.bytes, memory, record.length);
        *written = record.length;
    }
    return STATUS_SUCCESS;
}

NTSTATUS GetRequest(Bus* bus, const ControlBuffers& buffers, ULONG* written) {
    protocol::RequestQuery query;
    if (!ReadRecord(buffers, &query))
        return STATUS_INVALID_PARAMETER;
    return CopyKeptRequest(bus, query, buffers.bytes, buffers.outputLength, written);
}

NTSTATUS Release(Bus* bus, const ControlBuffers& buffers) {
    protocol::ReleaseRecord record;
    if (!ReadRecord(buffers, &record))
        return STATUS_INVALID_PARAMETER;
    return ReleaseHeld(bus, record.id, record.sequenceNumber);
}

NTSTATUS Wait(Bus* bus, IRP* irp, const ControlBuffers& buffers) {
    protocol::WaitRecord record;
    if (!ReadRecord(buffers, &record) || record.counter > protocol::CounterKind::kPending)
        return Complete(irp, STATUS_INVALID_PARAMETER);
    return PendWaiter(bus, irp, WaitFor::kCounter, record);
}

}  // namespace

NTSTATUS BusControl(Bus* bus, IRP* irp) {
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    const auto& parameters = stack->Parameters.DeviceIoControl;
    const ControlBuffers buffers = {static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer),
                                    parameters.InputBufferLength, parameters.OutputBufferLength};
    NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
    ULONG written = 0;
    switch (parameters.IoControlCode) {
        case protocol::kWaitStarted:
            return WaitStarted(bus, irp, buffers);
        case protocol::kUnplug:
            return Unplug(bus, irp, buffers);
        case protocol::kWait:
            return Wait(bus, irp, buffers);
        case protocol::kPlug:
            status = Plug(bus, buffers, &written);
            break;
        case protocol::kList:
            status = List(bus, buffers, &written);
            break;
        case protocol::kInfo:
            status = Info(bus, buffers, &written);
            break;
        case protocol::kSetBehaviour:
            status = SetBehaviour(bus, buffers);
            break;
        case protocol::kRelease:
            status = Release(bus, buffers);
            break;
        case protocol::kGetRequest:
            status = GetRequest(bus, buffers, &written);
            break;
        case protocol::kCounters:
            status = Counters(bus, buffers, &written);
            break;
        case protocol::kReadMemory:
            status = AccessMemory(bus, buffers, false, &written);
            break;
        case protocol::kWriteMemory:
            status = AccessMemory(bus, buffers, true, &written);
            break;
        default:
            break;
    }
    return Complete(irp, status, written);
}

}  // namespace vcam
