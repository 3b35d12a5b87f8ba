#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <windows.h>

// After <windows.h>, whose types it uses.
#include <winioctl.h>
// After <winioctl.h>, whose CTL_CODE it uses.
#include <ntddscsi.h>

#include "device/transfer_request.h"

class IoOperation;

/// The block that one transfer hands to the driver as input and output: the SCSI_PASS_THROUGH
/// record of <ntddscsi.h>, three fields of the service, and the data. The three fields stand
/// between record and data, which therefore begins at the odd offset 65, so that the completion
/// handler finds the request's identifiers in the block itself.
#pragma pack(push, 1)
struct PassThroughBuffer {
    SCSI_PASS_THROUGH scsi;
    std::uint32_t requestId;  ///< of the client's request
    std::uint32_t cameraId;   ///< of the client's request
    std::uint8_t dataIn;      ///< 1 if the answer carries data (kTransferIn), else 0

    /// First data byte, directly behind this record.
    std::byte* Data() noexcept { return reinterpret_cast<std::byte*>(this + 1); }
};
#pragma pack(pop)
static_assert(sizeof(SCSI_PASS_THROUGH) == 56);
static_assert(offsetof(PassThroughBuffer, requestId) == 56);
static_assert(offsetof(PassThroughBuffer, cameraId) == 60);
static_assert(offsetof(PassThroughBuffer, dataIn) == 64);
static_assert(sizeof(PassThroughBuffer) == 65);

/// One camera that the service has found: its identifier, its device-interface path, and a handle
/// that is open while a client uses it.
///
/// Thread: dispatcher only; only the shared ownership around it is thread-safe.
/// Owned by boost::shared_ptr: the Server's table and the sessions that have it attached.
class Device {
public:
    /// `completionPort` is not owned and outlives the device. Makes no system call.
    Device(std::wstring interfacePath, std::uint32_t cameraId, HANDLE completionPort);

    /// Closes the handle unless the count is 0. Transfers that are pending in the driver continue;
    /// their packets come later.
    ~Device();

    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    /// Counted: the first open opens the path for reading and writing, without sharing it, and
    /// binds the handle to the completion port under the key (low 32 bits of the handle) + 10000.
    /// Throws WindowsException and leaves the count unchanged. If the binding failed, the handle
    /// stays open, and a later first open overwrites it with a second one. The destructor closes it
    /// only if an extra Close() has wrapped the count; otherwise it is open until the process ends.
    void Open();

    /// Counted: the last close closes the handle. The count is not checked: an extra call wraps it,
    /// and a session that ends after Open() threw makes such a call.
    void Close() noexcept;

    /// Starts one SCSI command and returns. The outcome comes through `operation`, which must be
    /// pending (new or Reset()) and then belongs to the port; its `transferBuffer` is the
    /// PassThroughBuffer, which the completion handler frees. The packet's byte count is that of
    /// the whole block, and scsi.ScsiStatus in it says whether the camera accepted the command.
    ///
    /// `length` is the transfer length in bytes, 0 or more. `data` points to as many bytes, which
    /// are copied; it is not read for kTransferIn and kTransferNoData. Every other type is sent as
    /// data-out.
    ///
    /// Throws WindowsException when the device is removed (nothing is allocated) or the call fails
    /// at once (the block is freed, but `transferBuffer` still shows its address: don't use it).
    /// Throws std::bad_alloc.
    void Transfer(IoOperation* operation, const TransferRequest* request, const std::byte* data,
                  std::int32_t length);

    std::uint32_t Id() const noexcept { return id; }
    const std::wstring& Path() const noexcept { return path; }

    /// True once the service has given the camera up; transfers fail from then on. Never cleared.
    bool Removed() const noexcept { return removed; }
    void SetRemoved() noexcept { removed = true; }

private:
    std::uint32_t id;
    std::wstring path;
    std::uint32_t openCount = 0;
    HANDLE completionPort;                 // not owned
    HANDLE handle = INVALID_HANDLE_VALUE;  // raw: its closing is counted; keeps a closed value
    bool removed = false;
};
