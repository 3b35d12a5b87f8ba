// A camera's device: created by "plug", started by the PnP manager, deleted after "unplug".

#include "virtual_bus.h"

namespace vcam {
namespace {

constexpr wchar_t kDeviceId[] = L"ORVIKVCAM\\Camera";
constexpr wchar_t kHardwareIds[] = L"ORVIKVCAM\\Camera\0";  // a list: ends with an empty string
constexpr wchar_t kCompatibleIds[] = L"ORVIKVCAM\\Device\0";
constexpr wchar_t kDescription[] = L"Orvik virtual camera";

/// Memory that the PnP manager frees.
const wchar_t* CopyForPnp(const wchar_t* text, SIZE_T bytes) {
    void* const copy = ExAllocatePoolWithTag(PagedPool, bytes, kPoolTag);
    if (copy != nullptr)
        RtlCopyMemory(copy, text, bytes);
    return static_cast<const wchar_t*>(copy);
}

NTSTATUS QueryText(IRP* irp, const wchar_t* text, SIZE_T bytes) {
    const wchar_t* const copy = CopyForPnp(text, bytes);
    return Complete(irp, copy != nullptr ? STATUS_SUCCESS : STATUS_INSUFFICIENT_RESOURCES,
                    reinterpret_cast<ULONG_PTR>(copy));
}

NTSTATUS QueryId(Camera* camera, IRP* irp) {
    switch (IoGetCurrentIrpStackLocation(irp)->Parameters.QueryId.IdType) {
        case BusQueryDeviceID:
            return QueryText(irp, kDeviceId, sizeof(kDeviceId));
        case BusQueryHardwareIDs:
            return QueryText(irp, kHardwareIds, sizeof(kHardwareIds));
        case BusQueryCompatibleIDs:  // Wine does not register a device that has none
            return QueryText(irp, kCompatibleIds, sizeof(kCompatibleIds));
        case BusQueryInstanceID:
            return QueryText(irp, camera->plug.instanceId,
                             (camera->plug.instanceIdLength + 1) * sizeof(wchar_t));
        default:
            return Complete(irp, irp->IoStatus.Status, irp->IoStatus.Information);
    }
}

NTSTATUS QueryDeviceText(IRP* irp) {
    if (IoGetCurrentIrpStackLocation(irp)->Parameters.QueryDeviceText.DeviceTextType ==
        DeviceTextDescription)
        return QueryText(irp, kDescription, sizeof(kDescription));
    return Complete(irp, irp->IoStatus.Status, irp->IoStatus.Information);
}

NTSTATUS QueryCapabilities(IRP* irp) {
    DEVICE_CAPABILITIES* const capabilities =
        IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceCapabilities.Capabilities;
    capabilities->RawDeviceOK = TRUE;  // usable without a function driver
    capabilities->SilentInstall = TRUE;
    capabilities->Removable = TRUE;
    capabilities->SurpriseRemovalOK = TRUE;
    capabilities->UniqueID = TRUE;
    capabilities->EjectSupported = FALSE;
    capabilities->Address = 0xffffffff;
    capabilities->UINumber = 0xffffffff;
    capabilities->DeviceState[PowerSystemWorking] = PowerDeviceD0;
    for (int state = PowerSystemSleeping1; state < PowerSystemMaximum; ++state)
        capabilities->DeviceState[state] = PowerDeviceD3;
    return Complete(irp, STATUS_SUCCESS);
}

/// "Target device": a physical device returns itself.
NTSTATUS QueryRelations(Camera* camera, IRP* irp) {
    if (IoGetCurrentIrpStackLocation(irp)->Parameters.QueryDeviceRelations.Type !=
        TargetDeviceRelation)
        return Complete(irp, irp->IoStatus.Status, irp->IoStatus.Information);
    auto* const relations = static_cast<DEVICE_RELATIONS*>(
        ExAllocatePoolWithTag(PagedPool, sizeof(DEVICE_RELATIONS), kPoolTag));
    if (relations == nullptr)
        return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
    ObReferenceObject(camera->device);
    relations->Count = 1;
    relations->Objects[0] = camera->device;
    return Complete(irp, STATUS_SUCCESS, reinterpret_cast<ULONG_PTR>(relations));
}

/// `name` is a member of the camera.
NTSTATUS EnableInterface(Camera* camera, const GUID& interfaceClass, UNICODE_STRING* name) {
    if (name->Buffer == nullptr) {
        UNICODE_STRING registered = {};
        const NTSTATUS status =
            IoRegisterDeviceInterface(camera->device, &interfaceClass, nullptr, &registered);
        if (!NT_SUCCESS(status))
            return status;
        SpinLockGuard guard(&camera->bus->lock);
        *name = registered;
    }
    return IoSetDeviceInterfaceState(name, TRUE);
}

NTSTATUS EnableInterfaces(Camera* camera) {
    const protocol::PlugRecord& plug = camera->plug;
    const NTSTATUS status = EnableInterface(camera, plug.interfaceClass, &camera->interfaceName);
    if (!NT_SUCCESS(status) || !plug.hasSecondClass)
        return status;
    return EnableInterface(camera, plug.secondClass, &camera->secondInterfaceName);
}

void DisableInterfaces(Camera* camera) {
    IoSetDeviceInterfaceState(&camera->interfaceName, FALSE);
    if (camera->secondInterfaceName.Buffer != nullptr)
        IoSetDeviceInterfaceState(&camera->secondInterfaceName, FALSE);
}

NTSTATUS Start(Camera* camera, IRP* irp) {
    Bus* const bus = camera->bus;
    {
        // Before an interface is enabled, because programs can open the camera as soon as it is,
        // before this function returns.
        SpinLockGuard guard(&bus->lock);
        camera->refuses = false;
        camera->gone = false;
    }
    const NTSTATUS status = EnableInterfaces(camera);
    {
        SpinLockGuard guard(&bus->lock);
        camera->startStatus = status;
        camera->started = NT_SUCCESS(status);
    }
    Complete(irp, status);
    CheckWaiters(bus);
    return status;
}

/// Makes the camera unusable: ends its pending requests, then disables its interfaces.
/// `forGood` is false when the device was only disabled and may be started again. Does
/// nothing to a camera that is already gone.
void TakeAway(Camera* camera, bool forGood) {
    bool disable = false;
    {
        SpinLockGuard guard(&camera->bus->lock);
        if (camera->gone)
            return;
        camera->refuses = true;  // no request is pended after all requests have ended
        disable = camera->started;
        camera->started = false;
    }
    EndAllRequests(camera);
    if (disable)
        DisableInterfaces(camera);
    if (forGood) {
        {
            SpinLockGuard guard(&camera->bus->lock);
            camera->gone = true;
        }
        CheckWaiters(camera->bus);
    }
}

NTSTATUS Remove(Camera* camera, IRP* irp) {
    Bus* const bus = camera->bus;
    bool missing = false;
    {
        SpinLockGuard guard(&bus->lock);
        missing = camera->reportedMissing;
    }
    TakeAway(camera, missing);
    Complete(irp, STATUS_SUCCESS);
    if (!missing)
        return STATUS_SUCCESS;  // only disabled: the device lives as long as it is reported

    bool taken = false;
    {
        SpinLockGuard guard(&bus->lock);
        taken = TakeOffBus(camera);
    }
    if (taken)
        ReleaseUser(camera);
    return STATUS_SUCCESS;
}

/// A descriptor string as INQUIRY shows it: cut, or padded with spaces.
void CopyPadded(char* to, ULONG length, const protocol::StringRecord& text) {
    const ULONG count = text.length == protocol::kNone ? 0 : text.length;
    for (ULONG i = 0; i < length; ++i)
        to[i] = i < count ? text.bytes[i] : ' ';
}

bool IsValid(const protocol::StringRecord& text) {
    return text.length == protocol::kNone || text.length <= protocol::kStringBytes;
}

bool IsValid(const protocol::PlugRecord& plug) {
    if (!IsValid(plug.vendor) || !IsValid(plug.product) || !IsValid(plug.revision) ||
        plug.blockCount == 0 || plug.blockCount > protocol::kBlockLimit ||
        plug.instanceIdLength > protocol::kInstanceIdCharacters)
        return false;
    for (ULONG i = 0; i < plug.instanceIdLength; ++i) {
        const wchar_t c = plug.instanceId[i];
        if (c <= L' ' || c == L',' || c == L'\\' || c == L'/')
            return false;
    }
    return true;
}

/// Writes four hexadecimal digits.
void NumberInstance(Camera* camera, ULONG number) {
    constexpr wchar_t kDigits[] = L"0123456789ABCDEF";
    for (ULONG i = 0; i < 4; ++i)
        camera->plug.instanceId[i] = kDigits[number >> (12 - 4 * i) & 0xf];
    camera->plug.instanceId[4] = 0;
    camera->plug.instanceIdLength = 4;
    // Digits and capitals need no conversion to upper case.
    RtlCopyMemory(camera->foldedInstanceId, camera->plug.instanceId, 5 * sizeof(wchar_t));
}

NTSTATUS FoldInstanceId(Camera* camera) {
    UNICODE_STRING from;
    RtlInitUnicodeString(&from, camera->plug.instanceId);
    UNICODE_STRING to = {0, sizeof(camera->foldedInstanceId), camera->foldedInstanceId};
    return RtlUpcaseUnicodeString(&to, &from, FALSE);
}

/// Under the lock: whether a camera on the bus has this instance id.
bool IsInUse(Bus* bus, const Camera* camera) {
    for (LIST_ENTRY* at = bus->cameras.Flink; at != &bus->cameras; at = at->Flink) {
        const Camera* const other = CONTAINING_RECORD(at, Camera, link);
        if (!other->gone &&
            RtlCompareMemory(other->foldedInstanceId, camera->foldedInstanceId,
                             sizeof(camera->foldedInstanceId)) == sizeof(camera->foldedInstanceId))
            return true;
    }
    return false;
}

/// Adds a new camera to the bus, with an instance id that no other camera has.
NTSTATUS AddToBus(Bus* bus, Camera* camera) {
    SpinLockGuard guard(&bus->lock);
    if (bus->removed)
        return STATUS_DELETE_PENDING;
    if (bus->cameraCount >= protocol::kCameraLimit)
        return STATUS_TOO_MANY_NODES;
    if (camera->plug.instanceIdLength == 0) {
        // The lowest free number: the registry keeps an entry of each id that was ever used, and
        // each entry makes plugging slower.
        ULONG number = 0;
        do {
            NumberInstance(camera, ++number);
        } while (IsInUse(bus, camera));
    } else if (IsInUse(bus, camera)) {
        return STATUS_OBJECT_NAME_COLLISION;
    }
    camera->id = ++bus->lastId;
    camera->users = 1;
    camera->onBus = true;
    InsertTailList(&bus->cameras, &camera->link);
    ++bus->cameraCount;
    return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS CreateCamera(Bus* bus, const protocol::PlugRecord& plug, ULONG* id) {
    if (!IsValid(plug))
        return STATUS_INVALID_PARAMETER;
    // Not a disk or CD-ROM device type: those get a volume, and opening one mounts a file system.
    DEVICE_OBJECT* device = nullptr;
    NTSTATUS status =
        IoCreateDevice(bus->device->DriverObject, sizeof(Camera), nullptr, FILE_DEVICE_MASS_STORAGE,
                       FILE_AUTOGENERATED_DEVICE_NAME | FILE_DEVICE_SECURE_OPEN, FALSE, &device);
    if (!NT_SUCCESS(status))
        return status;

    Camera* const camera = static_cast<Camera*>(device->DeviceExtension);
    RtlZeroMemory(camera, sizeof(*camera));
    camera->kind = DeviceKind::kCamera;
    ObReferenceObject(bus->device);
    camera->bus = bus;
    camera->device = device;
    camera->plug = plug;
    camera->plug.instanceId[plug.instanceIdLength] = 0;
    camera->behaviour.maximumDataBytes = protocol::kNone;
    camera->behaviour.returnedBytes = protocol::kNone;
    camera->behaviour.descriptorHeaderBytes = protocol::kNone;
    camera->behaviour.descriptorBytes = protocol::kNone;
    InitializeListHead(&camera->pended);
    InitializeListHead(&camera->kept);

    camera->unit.blockCount = plug.blockCount;
    camera->unit.memory = static_cast<UCHAR*>(
        AllocatePool(static_cast<SIZE_T>(plug.blockCount) * protocol::kBlockBytes));
    CopyPadded(camera->unit.vendor, sizeof(camera->unit.vendor), plug.vendor);
    CopyPadded(camera->unit.product, sizeof(camera->unit.product), plug.product);
    CopyPadded(camera->unit.revision, sizeof(camera->unit.revision), plug.revision);

    status =
        camera->unit.memory != nullptr ? FoldInstanceId(camera) : STATUS_INSUFFICIENT_RESOURCES;
    if (NT_SUCCESS(status)) {
        // Before the PnP manager can see it on the bus.
        device->Flags |= DO_BUFFERED_IO | DO_POWER_PAGABLE;
        device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
        status = AddToBus(bus, camera);
    }
    if (!NT_SUCCESS(status)) {
        DeleteCamera(camera);
        return status;
    }
    *id = camera->id;
    return STATUS_SUCCESS;
}

void DeleteCamera(Camera* camera) {
    FreeKeptRequests(camera);
    FreePool(camera->unit.memory);
    if (camera->interfaceName.Buffer != nullptr)
        RtlFreeUnicodeString(&camera->interfaceName);
    if (camera->secondInterfaceName.Buffer != nullptr)
        RtlFreeUnicodeString(&camera->secondInterfaceName);
    DEVICE_OBJECT* const busDevice = camera->bus->device;
    IoDeleteDevice(camera->device);
    ObDereferenceObject(busDevice);
}

bool TakeOffBus(Camera* camera) {
    if (!camera->onBus)
        return false;
    camera->onBus = false;
    RemoveEntryList(&camera->link);
    --camera->bus->cameraCount;
    return true;
}

void DropCamera(Camera* camera) {
    TakeAway(camera, true);
    ReleaseUser(camera);
}

Camera* FindCamera(Bus* bus, ULONG id) {
    for (LIST_ENTRY* at = bus->cameras.Flink; at != &bus->cameras; at = at->Flink) {
        Camera* const camera = CONTAINING_RECORD(at, Camera, link);
        if (camera->id == id && !camera->unplugged)
            return camera;
    }
    return nullptr;
}

NTSTATUS CameraPnp(Camera* camera, IRP* irp) {
    switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
        case IRP_MN_START_DEVICE:
            return Start(camera, irp);
        case IRP_MN_SURPRISE_REMOVAL:
            TakeAway(camera, true);
            return Complete(irp, STATUS_SUCCESS);
        case IRP_MN_REMOVE_DEVICE:
            return Remove(camera, irp);
        case IRP_MN_QUERY_ID:
            return QueryId(camera, irp);
        case IRP_MN_QUERY_DEVICE_TEXT:
            return QueryDeviceText(irp);
        case IRP_MN_QUERY_CAPABILITIES:
            return QueryCapabilities(irp);
        case IRP_MN_QUERY_DEVICE_RELATIONS:
            return QueryRelations(camera, irp);
        case IRP_MN_QUERY_STOP_DEVICE:
        case IRP_MN_CANCEL_STOP_DEVICE:
        case IRP_MN_STOP_DEVICE:
        case IRP_MN_QUERY_REMOVE_DEVICE:
        case IRP_MN_CANCEL_REMOVE_DEVICE:
            return Complete(irp, STATUS_SUCCESS);
        default:
            return Complete(irp, irp->IoStatus.Status, irp->IoStatus.Information);
    }
}

NTSTATUS CameraCreate(Camera* camera, IRP* irp) {
    Bus* const bus = camera->bus;
    FILE_OBJECT* const file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    {
        SpinLockGuard guard(&bus->lock);
        file->FsContext = nullptr;
        if (!camera->refuses) {
            file->FsContext = camera;  // this handle counts
            ++camera->opens;
            ++camera->users;
        }
    }
    const bool counted = file->FsContext != nullptr;
    const NTSTATUS status = Complete(irp, counted ? STATUS_SUCCESS : STATUS_DEVICE_NOT_CONNECTED);
    if (counted)
        CheckWaiters(bus);
    return status;
}

NTSTATUS CameraClose(Camera* camera, IRP* irp) {
    Bus* const bus = camera->bus;
    // Wine returns a handle even if the open failed, and closes it here.
    const bool counted = IoGetCurrentIrpStackLocation(irp)->FileObject->FsContext != nullptr;
    if (counted) {
        SpinLockGuard guard(&bus->lock);
        ++camera->closes;
    }
    Complete(irp, STATUS_SUCCESS);
    if (counted) {
        CheckWaiters(bus);
        ReleaseUser(camera);
    }
    return STATUS_SUCCESS;
}

}  // namespace vcam
