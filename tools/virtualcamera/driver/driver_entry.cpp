// The driver's entry point, and the dispatch of requests to the devices.

#include "virtual_bus.h"

namespace vcam {
namespace {

Bus* BusOf(DEVICE_OBJECT* device) {
    auto* const bus = static_cast<Bus*>(device->DeviceExtension);
    return bus->kind == DeviceKind::kBus ? bus : nullptr;
}

Camera* CameraOf(DEVICE_OBJECT* device) {
    return static_cast<Camera*>(device->DeviceExtension);
}

NTSTATUS NTAPI DispatchCreate(DEVICE_OBJECT* device, IRP* irp) {
    if (BusOf(device) != nullptr)
        return Complete(irp, STATUS_SUCCESS);
    return CameraCreate(CameraOf(device), irp);
}

NTSTATUS NTAPI DispatchClose(DEVICE_OBJECT* device, IRP* irp) {
    if (BusOf(device) != nullptr)
        return Complete(irp, STATUS_SUCCESS);
    return CameraClose(CameraOf(device), irp);
}

/// The last handle of an open file is closed. Its pended requests stay pending until their delay, a
/// release, a cancel or the unplugging, so that a test can observe completions after the close.
NTSTATUS NTAPI DispatchCleanup(DEVICE_OBJECT*, IRP* irp) {
    return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS NTAPI DispatchDeviceControl(DEVICE_OBJECT* device, IRP* irp) {
    if (Bus* const bus = BusOf(device))
        return BusControl(bus, irp);
    return CameraControl(CameraOf(device), irp);
}

NTSTATUS NTAPI DispatchPnp(DEVICE_OBJECT* device, IRP* irp) {
    if (Bus* const bus = BusOf(device))
        return BusPnp(bus, irp);
    return CameraPnp(CameraOf(device), irp);
}

NTSTATUS NTAPI DispatchPower(DEVICE_OBJECT* device, IRP* irp) {
    if (Bus* const bus = BusOf(device)) {
        PoStartNextPowerIrp(irp);
        IoSkipCurrentIrpStackLocation(irp);
        return PoCallDriver(bus->lowerDevice, irp);
    }
    PoStartNextPowerIrp(irp);
    const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
    if (minor == IRP_MN_SET_POWER || minor == IRP_MN_QUERY_POWER)
        return Complete(irp, STATUS_SUCCESS);
    return Complete(irp, irp->IoStatus.Status);
}

NTSTATUS NTAPI DispatchSystemControl(DEVICE_OBJECT* device, IRP* irp) {
    if (Bus* const bus = BusOf(device)) {
        IoSkipCurrentIrpStackLocation(irp);
        return IoCallDriver(bus->lowerDevice, irp);
    }
    return Complete(irp, irp->IoStatus.Status, irp->IoStatus.Information);
}

/// On Windows every device is gone by now. Wine unloads the driver even if cameras have open
/// handles; closing those after their devices are deleted does not call the driver.
void NTAPI Unload(DRIVER_OBJECT* driver) {
    for (DEVICE_OBJECT* device = driver->DeviceObject; device != nullptr;) {
        DEVICE_OBJECT* const next = device->NextDevice;
        if (BusOf(device) == nullptr)
            DeleteCamera(CameraOf(device));
        device = next;
    }
}

}  // namespace
}  // namespace vcam

extern "C" NTSTATUS NTAPI DriverEntry(DRIVER_OBJECT* driver, UNICODE_STRING*) {
    driver->DriverExtension->AddDevice = vcam::AddDevice;
    driver->DriverUnload = vcam::Unload;
    driver->MajorFunction[IRP_MJ_CREATE] = vcam::DispatchCreate;
    driver->MajorFunction[IRP_MJ_CLOSE] = vcam::DispatchClose;
    driver->MajorFunction[IRP_MJ_CLEANUP] = vcam::DispatchCleanup;
    driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = vcam::DispatchDeviceControl;
    driver->MajorFunction[IRP_MJ_PNP] = vcam::DispatchPnp;
    driver->MajorFunction[IRP_MJ_POWER] = vcam::DispatchPower;
    driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = vcam::DispatchSystemControl;
    return STATUS_SUCCESS;
}
