// Controls the virtual cameras from C++: tests and vcamctl use it to plug, control and observe
// them. The virtual camera driver must be installed (`vcamctl install`).
#pragma once

#include <windows.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vcam {

/// Identifies one plugged camera. Assigned by the driver, and not reused while it is loaded.
using CameraId = std::uint32_t;

/// An NTSTATUS value as <ntstatus.h> defines them.
using NtStatus = long;

/// The number of a camera's last requests that the driver keeps, and of the bytes of each block.
inline constexpr std::uint32_t kRequestsKept = 64;
inline constexpr std::uint32_t kRequestBytesKept = 128 * 1024;

/// The size of one block of a camera's memory, in bytes.
inline constexpr std::uint32_t kBlockSize = 512;

/// Most blocks of a camera's memory: 64 MiB.
inline constexpr std::uint32_t kBlockLimit = 131'072;

/// The device interface classes of real cameras.
/// {53F56308-B6BF-11D0-94F2-00A0C91EFB8B}
inline constexpr GUID kCdromInterface = {
    0x53f56308, 0xb6bf, 0x11d0, {0x94, 0xf2, 0x00, 0xa0, 0xc9, 0x1e, 0xfb, 0x8b}};
/// {53F56307-B6BF-11D0-94F2-00A0C91EFB8B}
inline constexpr GUID kDiskInterface = {
    0x53f56307, 0xb6bf, 0x11d0, {0x94, 0xf2, 0x00, 0xa0, 0xc9, 0x1e, 0xfb, 0x8b}};

/// The properties of a camera. The defaults describe a camera that the service accepts.
struct PlugOptions {
    /// The strings of the storage device descriptor, byte for byte (padding is kept; at most 255
    /// bytes each). No value: the descriptor has no such string, its offset is 0. INQUIRY shows
    /// the same strings cut and padded with spaces to 8, 16 and 4 characters.
    std::optional<std::string> vendor = "Orvik";
    std::optional<std::string> product = "Virtual Camera";
    std::optional<std::string> revision = "F01";

    /// The class of the camera's device interface.
    GUID interfaceClass = kCdromInterface;

    /// The class of a second device interface of the same camera. Its path is that of the first
    /// with another class at its end.
    std::optional<GUID> secondClass;

    /// The instance id, which becomes a part of the device path; at most 60 characters, no
    /// blanks, commas, slashes or backslashes. Empty: the lowest free number, so that a camera
    /// plugged after another was unplugged may get its path. An id that is already plugged is
    /// refused. Characters outside ASCII are accepted on Wine and refused on Windows, which
    /// stops the machine for them.
    std::wstring instanceId;

    /// The size of the memory, in blocks of kBlockSize; from 1 to kBlockLimit.
    std::uint32_t blockCount = 2048;

    /// Most data bytes of one request, as a host adapter has it. A longer request fails at once
    /// with ERROR_INVALID_PARAMETER.
    std::uint32_t transferLimit = 64 * 1024;
};

/// How a camera treats the pass-through requests that arrive after the change. Requests that are
/// already pending keep the behaviour that was set when they arrived. The default is an ordinary
/// camera that answers at once.
///
/// Order for one request: `block`; `immediateStatus`; then, if any of `hold`, `delay` and
/// `completionStatus` is set, the request is pended; when it ends, `completionStatus`, then
/// `scsiStatus`, then the command itself. A command is carried out when its request ends, so a
/// held write that is cancelled changes nothing.
struct Behaviour {
    /// Not 0: every command is answered with this SCSI status and no data, and is not carried out.
    std::uint8_t scsiStatus = 0;

    /// Not 0: the request is pended, then completed with this status and no bytes returned.
    NtStatus completionStatus = 0;

    /// Not 0: the driver's dispatch routine completes the request with this status at once.
    /// Warnings such as STATUS_BUFFER_OVERFLOW and STATUS_CANCELLED are possible too.
    NtStatus immediateStatus = 0;

    /// More than 0: the driver's dispatch routine first waits for this time, and the caller's
    /// DeviceIoControl with it, as in Windows' CD-ROM driver while a command runs. Under Wine all
    /// requests to all cameras wait, and those of this library. At most an hour. Whole
    /// milliseconds.
    std::chrono::milliseconds block{0};

    /// More than 0: the request is pended and completed after this time. Whole milliseconds.
    std::chrono::milliseconds delay{0};

    /// The request is pended until Release() or ReleaseAll() completes it (`delay` is not used).
    bool hold = false;

    /// A pended request has no cancel routine: it ends only by delay, release or unplug.
    /// Otherwise cancelling ends it with STATUS_CANCELLED. A process that ends with such a request
    /// pending waits for it.
    bool ignoreCancel = false;

    /// Most data bytes that one read-in command returns; fewer than the command asked for is
    /// a success with a shorter answer.
    std::optional<std::uint32_t> maximumDataBytes;

    /// The count of bytes that a successful request says it returned, whatever the command did
    /// (also fewer than its own header); cut to the caller's output length.
    std::optional<std::uint32_t> returnedBytes;

    /// Limits for the answer to the query of the storage device descriptor: to one whose output
    /// buffer holds only the 8-byte header, and to any larger one.
    std::optional<std::uint32_t> descriptorHeaderBytes;
    std::optional<std::uint32_t> descriptorBytes;

    /// These bytes (at most 4096) are the storage device descriptor, valid or not.
    std::optional<std::vector<std::byte>> descriptor;
};

/// One IOCTL_SCSI_PASS_THROUGH request as it reached the driver.
struct Request {
    std::uint64_t sequenceNumber = 0;  ///< counts the camera's requests, from 1
    std::uint32_t inputLength = 0;     ///< the caller's input length in bytes
    std::uint32_t outputLength = 0;    ///< the caller's output length in bytes
    std::vector<std::byte> block;      ///< the input bytes, at most kRequestBytesKept of them
};

/// Counters since the camera was plugged.
struct CameraCounters {
    std::uint64_t requests = 0;  ///< pass-through requests that reached the driver
    std::uint64_t opens = 0;     ///< handles opened
    std::uint64_t closes = 0;    ///< handles closed; opens - closes are open now
    std::uint32_t pending = 0;   ///< pass-through requests pending in the driver now
};

/// The counter that WaitFor() waits for.
enum class Counter : std::uint32_t { kRequests, kOpens, kCloses, kPending };

/// One line of List().
struct CameraInfo {
    CameraId id = 0;
    PlugOptions options;  ///< as plugged; `instanceId` holds the generated id if it was empty
};

/// The link to the virtual bus. Closing it leaves the cameras plugged.
///
/// Thread: any, several at once. Every call returns when the driver has done the work. All throw
/// std::system_error, whose text says what failed and whose code is that of the system: for an id
/// of no plugged camera ERROR_DEVICE_NOT_CONNECTED (1167).
class Bus {
public:
    /// Opens the link. Throws ERROR_FILE_NOT_FOUND when the driver is not installed.
    Bus();
    ~Bus();
    Bus(Bus&&) noexcept;
    Bus& operator=(Bus&&) noexcept;

    /// Plugs a camera; on return its interface is enabled and can be opened. If that fails, the
    /// camera is unplugged again.
    CameraId Plug(const PlugOptions& options = {});

    /// Unplugs a camera; on return its interface is gone and requests that were pending on it
    /// have ended with STATUS_DEVICE_NOT_CONNECTED (error 1167). Handles may still be open.
    void Unplug(CameraId id);

    /// Unplugs all cameras that are plugged at the call.
    void UnplugAll();

    /// The plugged cameras in the order of their ids.
    std::vector<CameraInfo> List();

    /// The device path for CreateFileW, spelled as the set-up functions enumerate it.
    std::wstring InterfacePath(CameraId id);

    void SetBehaviour(CameraId id, const Behaviour& behaviour);

    /// Completes only the held request with this sequence number, with the behaviour that was set
    /// when it arrived. Returns when it is completed. Throws ERROR_NOT_FOUND when no such request
    /// is held.
    void Release(CameraId id, std::uint64_t sequenceNumber);

    /// Completes all held requests, oldest first. Later requests are held again.
    void ReleaseAll(CameraId id);

    /// The last `count` requests (at most kRequestsKept), oldest first, including pended and failed
    /// ones.
    std::vector<Request> LastRequests(CameraId id, std::uint32_t count = kRequestsKept);

    CameraCounters Counters(CameraId id);

    /// Returns when the counter is at least `count`. The driver reports it; nothing is polled.
    /// Throws ERROR_TIMEOUT when that takes longer than `timeout` (at most 49 days), and
    /// ERROR_DEVICE_NOT_CONNECTED when the camera is unplugged meanwhile.
    void WaitFor(CameraId id, Counter counter, std::uint64_t count,
                 std::chrono::milliseconds timeout);

    /// WaitFor() at least `count` requests that are pending in the driver at the same time.
    void WaitForPending(CameraId id, std::uint32_t count, std::chrono::milliseconds timeout) {
        WaitFor(id, Counter::kPending, count, timeout);
    }

    /// The camera's memory; `offset` in bytes. Both throw ERROR_INVALID_PARAMETER beyond its end.
    std::vector<std::byte> ReadMemory(CameraId id, std::uint64_t offset, std::size_t length);
    void WriteMemory(CameraId id, std::uint64_t offset, std::span<const std::byte> bytes);

private:
    struct Link;
    std::unique_ptr<Link> link;
};

}  // namespace vcam
