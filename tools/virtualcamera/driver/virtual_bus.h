// The objects of the driver: one bus (the function device of the root-enumerated device) and the
// cameras plugged into it (its child devices).
//
// One spin lock, Bus::lock, protects all of them: this is a test tool, and a single lock cannot be
// taken in a wrong order. Fields that are written only before other threads can see the object are
// read without it.
//
// A pended IRP has a cancel routine unless its caller asked for none. The code that removes the IRP
// from its list under the lock and, if there is a cancel routine, gets that back from
// IoSetCancelRoutine, completes the IRP after the lock is released. If IoSetCancelRoutine returns
// null, the cancel routine has been called and completes the IRP.
#pragma once

#include "kernel.h"

#include "control_protocol.h"
#include "scsi_unit.h"

namespace vcam {

struct Bus;

/// The first field of every device extension.
enum class DeviceKind : ULONG { kBus, kCamera };

/// One camera. Lives in the extension of its physical device object.
///
/// A removal takes it off the bus after it has been reported to the PnP manager as missing. Before
/// that the device is only disabled, because the PnP manager still uses it. The removal of the bus
/// removes all cameras on it. The device is deleted when it is off the bus and neither a handle nor
/// a request uses it: Windows removes no device with open handles, Wine does.
struct Camera {
    DeviceKind kind;
    ULONG id;
    Bus* bus;  // its device is referenced: it outlives its cameras
    DEVICE_OBJECT* device;
    LIST_ENTRY link;  // in Bus::cameras
    bool onBus;       // it is in that list

    protocol::PlugRecord plug;
    wchar_t foldedInstanceId[protocol::kInstanceIdCharacters + 1];  // upper case, for comparison
    // Empty before the first start, the second also without a second interface;
    // RtlFreeUnicodeString.
    UNICODE_STRING interfaceName;
    UNICODE_STRING secondInterfaceName;

    bool reported;         // to the PnP manager
    bool started;          // its interfaces are enabled
    bool unplugged;        // no longer reported
    bool reportedMissing;  // reported to the PnP manager as unplugged
    bool refuses;          // opens and requests fail; no request is pended
    bool gone;             // all its requests have ended, its interfaces are disabled for good
    NTSTATUS startStatus;  // why it could not be started
    ULONG users;           // the bus, open handles and pended requests

    protocol::BehaviourRecord behaviour;
    ULONGLONG requests;
    ULONGLONG opens;
    ULONGLONG closes;
    ULONG pending;
    LIST_ENTRY pended;  // of PendedRequest, oldest first
    LIST_ENTRY kept;    // of KeptRequest, oldest first
    ULONG keptCount;
    ScsiUnit unit;
};

struct Bus {
    DeviceKind kind;
    DEVICE_OBJECT* device;
    DEVICE_OBJECT* physicalDevice;
    DEVICE_OBJECT* lowerDevice;
    bool started;

    KSPIN_LOCK lock;
    LIST_ENTRY cameras;  // in the order of their ids
    ULONG cameraCount;
    ULONG lastId;
    bool removed;        // takes no more cameras
    LIST_ENTRY waiters;  // of Waiter: control requests that wait for a condition

    // The thread that completes delayed requests.
    KEVENT wake;
    bool stopThread;
    void* thread;  // referenced; null if it does not run
};

// --- bus.cpp ---

NTSTATUS NTAPI AddDevice(DRIVER_OBJECT* driver, DEVICE_OBJECT* physicalDevice);
NTSTATUS BusPnp(Bus* bus, IRP* irp);

// --- control.cpp and waiter.cpp ---

/// Completes the waiters whose condition holds. Call without the lock, after every change that a
/// waiter may wait for.
void CheckWaiters(Bus* bus);

/// One request of the control link.
NTSTATUS BusControl(Bus* bus, IRP* irp);

// --- camera.cpp ---

/// Creates a camera and adds it to the bus, not yet reported. IRQL: PASSIVE_LEVEL.
NTSTATUS CreateCamera(Bus* bus, const protocol::PlugRecord& plug, ULONG* id);

/// Frees all memory of a camera that has been removed from all lists. IRQL: PASSIVE_LEVEL.
void DeleteCamera(Camera* camera);

/// Under the lock: removes a camera from the bus, which remains its user. False if not on it.
bool TakeOffBus(Camera* camera);

/// Ends all pending requests of a camera that was removed from the bus, and deletes the camera when
/// its last user is gone. IRQL: PASSIVE_LEVEL.
void DropCamera(Camera* camera);

/// Under the lock: the camera with this id that is still plugged, or null.
Camera* FindCamera(Bus* bus, ULONG id);

NTSTATUS CameraPnp(Camera* camera, IRP* irp);
NTSTATUS CameraCreate(Camera* camera, IRP* irp);
NTSTATUS CameraClose(Camera* camera, IRP* irp);

// --- storage.cpp ---

/// IOCTL_STORAGE_QUERY_PROPERTY and IOCTL_SCSI_PASS_THROUGH.
NTSTATUS CameraControl(Camera* camera, IRP* irp);

/// Ends the held request with this sequence number, or with 0 all held requests.
NTSTATUS ReleaseHeld(Bus* bus, ULONG id, ULONGLONG sequenceNumber);

/// Ends all pended requests of a camera that is going away.
void EndAllRequests(Camera* camera);

/// Ends the delayed requests that are due. Returns the time until the next one in units of
/// 100 ns, or a negative number when there is none.
LONGLONG EndDueRequests(Bus* bus);

/// Copies one of the kept requests of a camera: a RequestHeader and the bytes behind it.
NTSTATUS CopyKeptRequest(Bus* bus, const protocol::RequestQuery& query, UCHAR* to, ULONG capacity,
                         ULONG* written);

/// Frees the kept requests of a camera.
void FreeKeptRequests(Camera* camera);

/// One user less; deletes the camera when it was the last. IRQL: PASSIVE_LEVEL.
void ReleaseUser(Camera* camera);

}  // namespace vcam
