// The objects of the driver: one bus (the function device of the root-enumerated device) and the
// cameras plugged into it (its child devices).
//
// One spin lock, Bus::lock, protects all of it: this is a test tool, and one lock has no order to
// get wrong. Fields that are written before others can see the object, and never after, are read
// without it.
//
// An IRP that is pended has a cancel routine unless its caller asked for none. Whoever takes it
// off its list under the lock, and (where there is a cancel routine) gets that back from
// IoSetCancelRoutine, completes it after the lock is released. Whoever finds the cancel routine
// already taken leaves the IRP to it.
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
/// A removal takes it off the bus once the PnP manager has been told that it is missing; before
/// that the PnP manager still counts on the device, which is only disabled. What is on a bus that
/// is itself removed goes with it. The device is deleted when it is off the bus and neither a
/// handle nor a request uses it: Windows removes no device with handles open, Wine does.
struct Camera {
    DeviceKind kind;
    ULONG id;
    Bus* bus;  // its device is referenced: it outlives its cameras
    DEVICE_OBJECT* device;
    LIST_ENTRY link;  // in Bus::cameras
    bool onBus;       // it is in that list

    protocol::PlugRecord plug;
    wchar_t foldedInstanceId[protocol::kInstanceIdCharacters + 1];  // upper case, to compare
    UNICODE_STRING interfaceName;  // empty before the first start; RtlFreeUnicodeString

    bool reported;         // the PnP manager has been told of it
    bool started;          // its interface is enabled
    bool unplugged;        // no longer reported
    bool reportedMissing;  // the PnP manager has been told that it is unplugged
    bool refuses;          // opens and requests; nothing is pended any more
    bool gone;             // all its requests have ended, its interface is disabled for good
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
    LIST_ENTRY waiters;  // of Waiter: control requests that wait for something to happen

    // The thread that ends delayed requests.
    KEVENT wake;
    bool stopThread;
    void* thread;  // referenced; null when it does not run
};

// --- bus.cpp ---

NTSTATUS NTAPI AddDevice(DRIVER_OBJECT* driver, DEVICE_OBJECT* physicalDevice);
NTSTATUS BusPnp(Bus* bus, IRP* irp);

// --- control.cpp and waiter.cpp ---

/// Completes the waiters whose condition holds now. Call after every change that a waiter may be
/// waiting for, without the lock.
void CheckWaiters(Bus* bus);

/// One request of the control link.
NTSTATUS BusControl(Bus* bus, IRP* irp);

// --- camera.cpp ---

/// Makes a camera and puts it on the bus, not yet reported. IRQL: PASSIVE_LEVEL.
NTSTATUS CreateCamera(Bus* bus, const protocol::PlugRecord& plug, ULONG* id);

/// Frees everything of a camera that is on no list any more. IRQL: PASSIVE_LEVEL.
void DeleteCamera(Camera* camera);

/// Under the lock: takes a camera off the bus, which remains its user. False if it is off already.
bool TakeOffBus(Camera* camera);

/// Ends all that is pending on a camera that was taken off the bus, and deletes it as soon as
/// nobody uses it. IRQL: PASSIVE_LEVEL.
void DropCamera(Camera* camera);

/// Under the lock: the camera with this id that is still plugged, or null.
Camera* FindCamera(Bus* bus, ULONG id);

NTSTATUS CameraPnp(Camera* camera, IRP* irp);
NTSTATUS CameraCreate(Camera* camera, IRP* irp);
NTSTATUS CameraClose(Camera* camera, IRP* irp);

// --- storage.cpp ---

/// IOCTL_STORAGE_QUERY_PROPERTY and IOCTL_SCSI_PASS_THROUGH.
NTSTATUS CameraControl(Camera* camera, IRP* irp);

/// Ends the held request with this sequence number, or with 0 all that are held.
NTSTATUS ReleaseHeld(Bus* bus, ULONG id, ULONGLONG sequenceNumber);

/// Ends all pended requests of a camera that is going away.
void EndAllRequests(Camera* camera);

/// Ends the delayed requests whose time has come. Returns the time until the next one in units of
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
