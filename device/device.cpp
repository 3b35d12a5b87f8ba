#include "device/device.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <windows.h>

#include "device/io_operation.h"
#include "device/windows_exception.h"
#include "windows/unique_handle.h"

namespace {

constexpr std::uint32_t kDeviceKeyOffset = 10000;  // tells camera packets from pipe packets
constexpr ULONG kTransferTimeoutSeconds = 100;

ULONG_PTR CompletionKey(HANDLE handle) noexcept {
    return LowHalf(handle) + kDeviceKeyOffset;
}

UCHAR Direction(std::uint32_t type) noexcept {
    switch (type) {
        case kTransferIn:
            return SCSI_IOCTL_DATA_IN;
        case kTransferNoData:
            return SCSI_IOCTL_DATA_UNSPECIFIED;
        default:
            return SCSI_IOCTL_DATA_OUT;
    }
}

}  // namespace

Device::Device(std::wstring interfacePath, std::uint32_t cameraId, HANDLE port)
    : id(cameraId),
      path(std::move(interfacePath)),
      completionPort(port) {}

Device::~Device() {
    // One call instead of `openCount` calls: only the last of them would close anything, and after
    // an extra Close() the count is about four thousand million.
    if (openCount != 0) {
        openCount = 1;
        Close();
    }
}

void Device::Open() {
    if (openCount != 0) {
        ++openCount;
        return;
    }
    handle = ::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                           FILE_FLAG_OVERLAPPED, nullptr);
    if (handle == INVALID_HANDLE_VALUE)
        throw WindowsException("Device::Open() failed.");
    if (::CreateIoCompletionPort(handle, completionPort, CompletionKey(handle), 0) !=
        completionPort)
        throw WindowsException("Failed to device to IOCompletionPort.");
    openCount = 1;
}

void Device::Close() noexcept {
    if (openCount-- == 1 && handle != INVALID_HANDLE_VALUE)
        ::CloseHandle(handle);
}

void Device::Transfer(IoOperation* operation, const TransferRequest* request, const std::byte* data,
                      std::int32_t length) {
    if (removed)
        throw WindowsException("Transfer Request for device that has already been removed.");

    const std::size_t size = static_cast<std::size_t>(length) + sizeof(PassThroughBuffer);
    auto* const buffer = static_cast<PassThroughBuffer*>(std::malloc(size));
    operation->transferBuffer = buffer;
    if (buffer == nullptr)
        throw std::bad_alloc();

    buffer->requestId = request->requestId;
    buffer->cameraId = request->cameraId;
    buffer->dataIn = request->type == kTransferIn ? 1 : 0;

    SCSI_PASS_THROUGH& scsi = buffer->scsi;
    std::memset(&scsi, 0, sizeof(scsi));  // the driver sees the padding too
    scsi.Length = sizeof(SCSI_PASS_THROUGH);
    scsi.CdbLength = kCdbLength;  // whatever the command; no sense data is asked for
    scsi.DataIn = Direction(request->type);
    scsi.DataTransferLength = static_cast<ULONG>(length);
    scsi.TimeOutValue = kTransferTimeoutSeconds;
    scsi.DataBufferOffset = sizeof(PassThroughBuffer);
    std::memcpy(scsi.Cdb, request->cdb.data(), sizeof(scsi.Cdb));

    switch (scsi.DataIn) {
        case SCSI_IOCTL_DATA_OUT:
            if (length > 0)
                std::memcpy(buffer->Data(), data, static_cast<std::size_t>(length));
            break;
        case SCSI_IOCTL_DATA_UNSPECIFIED:
            // The length is declared to the driver all the same: no stale heap memory leaves here.
            std::memset(buffer->Data(), 0, static_cast<std::size_t>(length));
            break;
        default:
            break;  // the driver fills it
    }

    // A packet comes in either case, also when the call finishes at once with success.
    if (!::DeviceIoControl(handle, IOCTL_SCSI_PASS_THROUGH, buffer, static_cast<DWORD>(size),
                           buffer, static_cast<DWORD>(size), nullptr, &operation->overlapped) &&
        ::GetLastError() != ERROR_IO_PENDING) {
        const DWORD error = ::GetLastError();
        std::free(buffer);
        ::SetLastError(error);  // free may change it, and the exception reads it
        throw WindowsException("DeviceIoControl() failed.");
    }
}
