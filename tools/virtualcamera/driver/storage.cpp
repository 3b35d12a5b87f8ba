// The answers of a camera to device-control requests.

#include "virtual_bus.h"

namespace vcam {
namespace {

constexpr LONGLONG kTicksPerSecond = 10'000'000;  // units of 100 ns
constexpr LONGLONG kTicksPerMillisecond = kTicksPerSecond / 1000;

/// How one pass-through request is to end: the behaviour set when it arrived.
struct Answer {
    LONG completionStatus;
    UCHAR scsiStatus;
    ULONG maximumDataBytes;
    ULONG returnedBytes;
};

/// A pass-through request that has not ended yet. The IRP's DriverContext[0] points to it.
struct PendedRequest {
    LIST_ENTRY link;  // in Camera::pended, or in the list of those to be ended
    Camera* camera;   // it is one of its users
    IRP* irp;
    ULONGLONG sequenceNumber;
    bool held;
    bool cancellable;  // has a cancel routine
    LONGLONG due;      // if not held: its end, in the time of Now()
    Answer answer;
};

struct KeptRequest {
    LIST_ENTRY link;  // in Camera::kept
    ULONGLONG sequenceNumber;
    protocol::RequestHeader header;

    UCHAR* Bytes() { return reinterpret_cast<UCHAR*>(this + 1); }
};

/// A steady clock in units of 100 ns.
LONGLONG Now() {
    LARGE_INTEGER frequency;
    const LONGLONG count = KeQueryPerformanceCounter(&frequency).QuadPart;
    return count / frequency.QuadPart * kTicksPerSecond +
           count % frequency.QuadPart * kTicksPerSecond / frequency.QuadPart;
}

ULONG Smaller(ULONG a, ULONG b) {
    return a < b ? a : b;
}

// --- the storage device descriptor ---

constexpr ULONG kDescriptorHead = FIELD_OFFSET(STORAGE_DEVICE_DESCRIPTOR, RawDeviceProperties);

/// The longest descriptor that is built from strings.
struct DescriptorBytes {
    alignas(STORAGE_DEVICE_DESCRIPTOR)
        UCHAR bytes[sizeof(STORAGE_DEVICE_DESCRIPTOR) + SIZE_T{3} * (protocol::kStringBytes + 1)];
    ULONG length;
};

/// Appends a string and its NUL; returns its offset, 0 when it is absent.
ULONG Append(DescriptorBytes* to, const protocol::StringRecord& text) {
    if (text.length == protocol::kNone)
        return 0;
    const ULONG offset = to->length;
    RtlCopyMemory(to->bytes + offset, text.bytes, text.length);
    to->bytes[offset + text.length] = 0;
    to->length += text.length + 1;
    return offset;
}

void BuildDescriptor(const protocol::PlugRecord& plug, DescriptorBytes* to) {
    RtlZeroMemory(to, sizeof(*to));
    to->length = sizeof(STORAGE_DEVICE_DESCRIPTOR);
    auto* const head = reinterpret_cast<STORAGE_DEVICE_DESCRIPTOR*>(to->bytes);
    head->Version = sizeof(STORAGE_DEVICE_DESCRIPTOR);
    head->RemovableMedia = TRUE;
    head->BusType = BusTypeUsb;
    head->VendorIdOffset = Append(to, plug.vendor);
    head->ProductIdOffset = Append(to, plug.product);
    head->ProductRevisionOffset = Append(to, plug.revision);
    head->Size = to->length;
    static_assert(kDescriptorHead < sizeof(STORAGE_DEVICE_DESCRIPTOR));
}

NTSTATUS QueryProperty(Camera* camera, IRP* irp) {
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    constexpr ULONG kQueryHead = FIELD_OFFSET(STORAGE_PROPERTY_QUERY, AdditionalParameters);
    if (parameters.InputBufferLength < kQueryHead)
        return Complete(irp, STATUS_INVALID_PARAMETER);
    const auto* const query =
        static_cast<const STORAGE_PROPERTY_QUERY*>(irp->AssociatedIrp.SystemBuffer);
    if (query->PropertyId != StorageDeviceProperty)
        return Complete(irp, STATUS_NOT_SUPPORTED);
    if (query->QueryType == PropertyExistsQuery)
        return Complete(irp, STATUS_SUCCESS);
    if (query->QueryType != PropertyStandardQuery)
        return Complete(irp, STATUS_NOT_SUPPORTED);

    DescriptorBytes built;
    BuildDescriptor(camera->plug, &built);
    ULONG count = 0;
    bool refused = false;
    {
        SpinLockGuard guard(&camera->bus->lock);
        refused = camera->refuses;
        const protocol::BehaviourRecord& behaviour = camera->behaviour;
        const bool given = behaviour.hasDescriptor != 0;
        const bool headerOnly = parameters.OutputBufferLength <= sizeof(STORAGE_DESCRIPTOR_HEADER);
        count = Smaller(given ? behaviour.descriptorLength : built.length,
                        headerOnly ? behaviour.descriptorHeaderBytes : behaviour.descriptorBytes);
        count = Smaller(count, parameters.OutputBufferLength);
        RtlCopyMemory(irp->AssociatedIrp.SystemBuffer, given ? behaviour.descriptor : built.bytes,
                      count);
    }
    if (refused)
        return Complete(irp, STATUS_DEVICE_NOT_CONNECTED);
    return Complete(irp, STATUS_SUCCESS, count);
}

// --- pass-through requests ---

/// Checks the caller's input, once: after this every offset and length in the block is inside the
/// IRP's buffer.
NTSTATUS CheckBlock(const SCSI_PASS_THROUGH* block, ULONG inputLength, ULONG outputLength,
                    ULONG transferLimit) {
    constexpr ULONG kHead = sizeof(SCSI_PASS_THROUGH);
    if (inputLength < kHead || outputLength < kHead || block->Length != kHead)
        return STATUS_INVALID_PARAMETER;
    if (block->CdbLength == 0 || block->CdbLength > sizeof(block->Cdb) ||
        block->DataIn > SCSI_IOCTL_DATA_UNSPECIFIED || block->TimeOutValue == 0 ||
        block->DataTransferLength > transferLimit)
        return STATUS_INVALID_PARAMETER;
    const bool reads = block->DataIn == SCSI_IOCTL_DATA_IN;
    if (block->DataTransferLength == 0 && !reads)
        return STATUS_SUCCESS;
    const ULONG limit = reads ? outputLength : inputLength;
    if (block->DataBufferOffset < kHead || block->DataBufferOffset > limit ||
        block->DataTransferLength > limit - block->DataBufferOffset)
        return STATUS_INVALID_PARAMETER;
    return STATUS_SUCCESS;
}

/// Carries out a checked request; its answer is in the IRP afterwards, which is not completed.
void Execute(Camera* camera, IRP* irp, const Answer& answer) {
    irp->IoStatus.Status = answer.completionStatus;
    irp->IoStatus.Information = 0;
    if (answer.completionStatus != STATUS_SUCCESS)
        return;

    auto* const block = static_cast<SCSI_PASS_THROUGH*>(irp->AssociatedIrp.SystemBuffer);
    const bool reads = block->DataIn == SCSI_IOCTL_DATA_IN;
    ScsiResult result = {answer.scsiStatus, 0};
    if (answer.scsiStatus == kScsiGood) {
        ScsiCommand command = {};
        RtlCopyMemory(command.cdb, block->Cdb, block->CdbLength);
        command.phase = static_cast<DataPhase>(block->DataIn);
        command.data = reinterpret_cast<UCHAR*>(block) + block->DataBufferOffset;
        command.dataLength = reads ? Smaller(block->DataTransferLength, answer.maximumDataBytes)
                                   : block->DataTransferLength;
        SpinLockGuard guard(&camera->bus->lock);
        result = camera->unit.Execute(command);
    }
    block->ScsiStatus = result.status;
    block->SenseInfoLength = 0;  // sense data is read with REQUEST SENSE only
    block->DataTransferLength = result.transferred;
    irp->IoStatus.Information =
        reads ? static_cast<ULONG_PTR>(block->DataBufferOffset) + result.transferred
              : sizeof(SCSI_PASS_THROUGH);
    if (answer.returnedBytes != protocol::kNone)
        irp->IoStatus.Information = Smaller(
            answer.returnedBytes,
            IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength);
}

/// Completes a request that has been removed from all lists, and frees it.
void End(PendedRequest* request) {
    Camera* const camera = request->camera;
    IRP* const irp = request->irp;
    Execute(camera, irp, request->answer);
    FreePool(request);
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    ReleaseUser(camera);
}

/// Under the lock: moves a request from its camera to `ended`, unless its cancel routine is about
/// to run.
bool Take(PendedRequest* request, LIST_ENTRY* ended) {
    if (request->cancellable && IoSetCancelRoutine(request->irp, nullptr) == nullptr)
        return false;
    RemoveEntryList(&request->link);
    --request->camera->pending;
    InsertTailList(ended, &request->link);
    return true;
}

void EndAll(LIST_ENTRY* ended) {
    while (!IsListEmpty(ended)) {
        LIST_ENTRY* const entry = RemoveHeadList(ended);
        End(CONTAINING_RECORD(entry, PendedRequest, link));
    }
}

void NTAPI CancelRequest(DEVICE_OBJECT*, IRP* irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    auto* const request = static_cast<PendedRequest*>(irp->Tail.Overlay.DriverContext[0]);
    {
        SpinLockGuard guard(&request->camera->bus->lock);
        RemoveEntryList(&request->link);
        --request->camera->pending;
    }
    request->answer.completionStatus = STATUS_CANCELLED;
    End(request);
}

/// A copy of the request's input block, to be read back later. Null if out of memory.
KeptRequest* Keep(const IRP* irp, ULONG inputLength, ULONG outputLength) {
    const ULONG count = Smaller(inputLength, protocol::kRequestBytesKept);
    auto* const kept = static_cast<KeptRequest*>(
        ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(KeptRequest) + count, kPoolTag));
    if (kept == nullptr)
        return nullptr;
    kept->header = {inputLength, outputLength, count, 0};
    RtlCopyMemory(kept->Bytes(), irp->AssociatedIrp.SystemBuffer, count);
    return kept;
}

/// Under the lock: counts a request and keeps its copy. Returns the oldest copy if it was removed
/// to make room; the caller frees it.
KeptRequest* Count(Camera* camera, KeptRequest* kept) {
    kept->sequenceNumber = ++camera->requests;
    InsertTailList(&camera->kept, &kept->link);
    if (++camera->keptCount <= protocol::kRequestsKept)
        return nullptr;
    --camera->keptCount;
    LIST_ENTRY* const oldest = RemoveHeadList(&camera->kept);
    return CONTAINING_RECORD(oldest, KeptRequest, link);
}

/// Pends a request; the IRP may be gone on return.
void Pend(PendedRequest* request, bool ignoreCancel) {
    Camera* const camera = request->camera;
    Bus* const bus = camera->bus;
    IRP* const irp = request->irp;
    IoMarkIrpPending(irp);
    irp->Tail.Overlay.DriverContext[0] = request;
    NTSTATUS failed = STATUS_SUCCESS;
    const bool held = request->held;
    {
        SpinLockGuard guard(&bus->lock);
        ++camera->users;
        request->cancellable = !ignoreCancel;
        if (request->cancellable)
            IoSetCancelRoutine(irp, CancelRequest);
        if (request->cancellable && irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) {
            failed = STATUS_CANCELLED;  // cancelled before there was a cancel routine to call
        } else {
            InsertTailList(&camera->pended, &request->link);
            ++camera->pending;
            LIST_ENTRY ended;
            InitializeListHead(&ended);
            if (camera->refuses && Take(request, &ended))
                failed = STATUS_DEVICE_NOT_CONNECTED;
        }
    }
    if (failed != STATUS_SUCCESS) {
        request->answer.completionStatus = failed;
        End(request);
    } else if (!held) {
        KeSetEvent(&bus->wake, IO_NO_INCREMENT, FALSE);
    }
}

NTSTATUS PassThrough(Camera* camera, IRP* irp) {
    Bus* const bus = camera->bus;
    const auto& parameters = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
    const ULONG inputLength = parameters.InputBufferLength;
    const ULONG outputLength = parameters.OutputBufferLength;

    KeptRequest* const kept = Keep(irp, inputLength, outputLength);
    auto* const request = static_cast<PendedRequest*>(AllocatePool(sizeof(PendedRequest)));
    if (kept == nullptr || request == nullptr) {
        FreePool(kept);
        FreePool(request);
        return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
    }
    request->camera = camera;
    request->irp = irp;

    KeptRequest* oldest = nullptr;
    bool refused = false;
    bool ignoreCancel = false;
    ULONG delay = 0;
    ULONG block = 0;
    LONG immediate = STATUS_SUCCESS;
    {
        SpinLockGuard guard(&bus->lock);
        refused = camera->refuses;
        oldest = Count(camera, kept);
        request->sequenceNumber = camera->requests;
        const protocol::BehaviourRecord& behaviour = camera->behaviour;
        request->answer = {behaviour.completionStatus, behaviour.scsiStatus,
                           behaviour.maximumDataBytes, behaviour.returnedBytes};
        request->held = behaviour.hold != 0;
        ignoreCancel = behaviour.ignoreCancel != 0;
        delay = behaviour.delayMilliseconds;
        block = behaviour.blockMilliseconds;
        immediate = behaviour.immediateStatus;
    }
    FreePool(oldest);
    if (block != 0) {
        CheckWaiters(bus);
        LARGE_INTEGER relative = {};
        relative.QuadPart = -(block * kTicksPerMillisecond);
        KeDelayExecutionThread(KernelMode, FALSE, &relative);
    }

    NTSTATUS status = STATUS_PENDING;
    if (refused)
        status = Complete(irp, STATUS_DEVICE_NOT_CONNECTED);
    else if (immediate != STATUS_SUCCESS)
        status = Complete(irp, immediate);
    else if (status = CheckBlock(static_cast<SCSI_PASS_THROUGH*>(irp->AssociatedIrp.SystemBuffer),
                                 inputLength, outputLength, camera->plug.transferLimit);
             !NT_SUCCESS(status))
        Complete(irp, status);
    else if (request->held || delay != 0 || request->answer.completionStatus != STATUS_SUCCESS) {
        request->due = Now() + delay * kTicksPerMillisecond;
        Pend(request, ignoreCancel);
        CheckWaiters(bus);
        return STATUS_PENDING;
    } else {
        Execute(camera, irp, request->answer);
        status = irp->IoStatus.Status;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }
    FreePool(request);
    CheckWaiters(bus);
    return status;
}

}  // namespace

NTSTATUS CameraControl(Camera* camera, IRP* irp) {
    const IO_STACK_LOCATION* const stack = IoGetCurrentIrpStackLocation(irp);
    // Wine returns a handle even if the open failed. The camera does not wait for its close.
    if (stack->FileObject == nullptr || stack->FileObject->FsContext == nullptr)
        return Complete(irp, STATUS_DEVICE_NOT_CONNECTED);
    switch (stack->Parameters.DeviceIoControl.IoControlCode) {
        case IOCTL_SCSI_PASS_THROUGH:
            return PassThrough(camera, irp);
        case IOCTL_STORAGE_QUERY_PROPERTY:
            return QueryProperty(camera, irp);
        default:
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    }
}

NTSTATUS ReleaseHeld(Bus* bus, ULONG id, ULONGLONG sequenceNumber) {
    LIST_ENTRY ended;
    InitializeListHead(&ended);
    {
        SpinLockGuard guard(&bus->lock);
        Camera* const camera = FindCamera(bus, id);
        if (camera == nullptr)
            return STATUS_DEVICE_NOT_CONNECTED;
        for (LIST_ENTRY* at = camera->pended.Flink; at != &camera->pended;) {
            PendedRequest* const request = CONTAINING_RECORD(at, PendedRequest, link);
            at = at->Flink;
            if (request->held && (sequenceNumber == 0 || request->sequenceNumber == sequenceNumber))
                Take(request, &ended);
        }
        if (sequenceNumber != 0 && IsListEmpty(&ended))
            return STATUS_NOT_FOUND;
    }
    EndAll(&ended);
    return STATUS_SUCCESS;
}

void EndAllRequests(Camera* camera) {
    LIST_ENTRY ended;
    InitializeListHead(&ended);
    {
        SpinLockGuard guard(&camera->bus->lock);
        for (LIST_ENTRY* at = camera->pended.Flink; at != &camera->pended;) {
            PendedRequest* const request = CONTAINING_RECORD(at, PendedRequest, link);
            at = at->Flink;
            if (Take(request, &ended))
                request->answer.completionStatus = STATUS_DEVICE_NOT_CONNECTED;
        }
    }
    EndAll(&ended);
}

LONGLONG EndDueRequests(Bus* bus) {
    LIST_ENTRY ended;
    LONGLONG remaining = -1;
    do {
        InitializeListHead(&ended);
        remaining = -1;
        {
            SpinLockGuard guard(&bus->lock);
            const LONGLONG now = Now();
            for (LIST_ENTRY* c = bus->cameras.Flink; c != &bus->cameras; c = c->Flink) {
                Camera* const camera = CONTAINING_RECORD(c, Camera, link);
                for (LIST_ENTRY* at = camera->pended.Flink; at != &camera->pended;) {
                    PendedRequest* const request = CONTAINING_RECORD(at, PendedRequest, link);
                    at = at->Flink;
                    if (request->held)
                        continue;
                    if (request->due <= now)
                        Take(request, &ended);
                    else if (remaining < 0 || request->due - now < remaining)
                        remaining = request->due - now;
                }
            }
        }
        if (IsListEmpty(&ended))
            return remaining;
        EndAll(&ended);
    } while (true);
}

NTSTATUS CopyKeptRequest(Bus* bus, const protocol::RequestQuery& query, UCHAR* to, ULONG capacity,
                         ULONG* written) {
    SpinLockGuard guard(&bus->lock);
    const Camera* const camera = FindCamera(bus, query.id);
    if (camera == nullptr)
        return STATUS_DEVICE_NOT_CONNECTED;
    for (LIST_ENTRY* at = camera->kept.Flink; at != &camera->kept; at = at->Flink) {
        KeptRequest* const kept = CONTAINING_RECORD(at, KeptRequest, link);
        if (kept->sequenceNumber != query.sequenceNumber)
            continue;
        const ULONG length = ULONG{sizeof(kept->header)} + kept->header.keptBytes;
        if (capacity < length)
            return STATUS_BUFFER_TOO_SMALL;
        RtlCopyMemory(to, &kept->header, sizeof(kept->header));
        RtlCopyMemory(to + sizeof(kept->header), kept->Bytes(), kept->header.keptBytes);
        *written = length;
        return STATUS_SUCCESS;
    }
    return STATUS_NOT_FOUND;
}

void FreeKeptRequests(Camera* camera) {
    while (!IsListEmpty(&camera->kept)) {
        LIST_ENTRY* const entry = RemoveHeadList(&camera->kept);
        FreePool(CONTAINING_RECORD(entry, KeptRequest, link));
    }
}

void ReleaseUser(Camera* camera) {
    bool last = false;
    {
        SpinLockGuard guard(&camera->bus->lock);
        last = --camera->users == 0;
    }
    if (last)
        DeleteCamera(camera);
}

}  // namespace vcam
