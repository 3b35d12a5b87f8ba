// The client library of OrvikService: cameras and their SCSI commands for desktop programs.
//
//     orvik::Client client;
//     for (orvik::CameraId camera : client.Cameras()) {
//         const auto answer = client.TransferIn(camera, orvik::InquiryCdb());
//         std::cout << orvik::DecodeInquiry(answer).product << '\n';
//     }
//
// All texts are UTF-8.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace orvik {

/// What went wrong, for programs; Error::what() says it in words.
enum class ErrorKind {
    kNotRunning,    ///< the camera pipe is not there: the service is not installed or not running
    kBusy,          ///< the pipe is there, but no instance of it was free before the deadline
    kAccessDenied,  ///< this user may not open the camera pipe
    kServiceGone,   ///< the service ended, or an earlier error closed the connection
    kTimedOut,      ///< the deadline passed
    kNoSuchCamera,  ///< the service has not announced such a camera, or has reported it gone
    kRefused,       ///< the camera or its driver refused the command, or the camera is gone
    kBadAnswer,     ///< the service or the camera sent what makes no sense
    kBadArgument,   ///< the caller asked for what cannot be sent; nothing was sent
    kSystem,        ///< any other failed system call
};

/// Every failure of this library but for want of memory.
class Error : public std::runtime_error {
public:
    /// `systemCode` is a Windows error code, whose meaning in words goes into the text, or 0.
    Error(ErrorKind errorKind, const std::string& text, std::uint32_t systemCode = 0);

    ErrorKind Kind() const noexcept { return kind; }

    /// The Windows error code behind it; 0 if there is none.
    std::uint32_t SystemCode() const noexcept { return code; }

private:
    ErrorKind kind;
    std::uint32_t code;
};

/// A camera as the service names it. Never used again for another camera while the service runs.
using CameraId = std::uint32_t;

/// One request of one Client.
using RequestId = std::uint32_t;

/// How long the calls of a Client may take if the caller does not say.
inline constexpr std::chrono::milliseconds kConnectTimeout{5'000};
inline constexpr std::chrono::milliseconds kTransferTimeout{30'000};

/// A connection to the service.
///
/// A client that connects while no desktop program is connected becomes the one that is told of
/// cameras that come and go, and the service starts no desktop program while it stays. So a tool
/// connects, asks and leaves. Any other client learns of the cameras present when it connects.
///
/// Thread: one at a time.
///
/// Every call may throw Error. After kServiceGone, kBadAnswer or kSystem the connection is closed
/// and each further call throws kServiceGone; to reconnect, make another Client. An answer that
/// has come before can still be fetched with Wait(). The same holds when a Send times out, because
/// the request may have left in part; if the service was only slow, it may take such a half message
/// for a client that leaves too early, and end its run.
///
/// Naming a camera that the service doesn't know ends the service's run, for everybody. The calls
/// below refuse a camera that was never announced or has been reported gone, but only the client
/// that is told of cameras that go can know: any other makes a new Client before it names a camera
/// after a pause. Commands and data are copied, and needed only for the call. Calls may also throw
/// std::bad_alloc.
class Client {
public:
    /// Connects, and returns when the cameras present are known. `pipe` is for tests.
    /// Throws kNotRunning, kBusy, kAccessDenied, kTimedOut (connected, but the service is silent).
    explicit Client(std::chrono::milliseconds timeout = kConnectTimeout,
                    const std::wstring& pipe = LR"(\\.\pipe\orvikcamera)");

    /// Leaves in a way that does not disturb the service, which can take a moment, at most two
    /// seconds if the service hangs. Requests that are not answered are given up.
    ~Client();

    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// The cameras present as far as this client has been told, in the order announced. Brought up
    /// to date whenever messages are read: by Send…() and Wait(), and so by Transfer…().
    std::vector<CameraId> Cameras() const;

    /// Sends a command that returns data, and waits for the data: at most kTransferInLimit bytes,
    /// and often fewer than the command asked for.
    /// Throws what Send…() and Wait() throw. After kTimedOut the answer is dropped when it comes.
    std::vector<std::byte> TransferIn(CameraId camera, std::span<const std::byte> cdb,
                                      std::chrono::milliseconds timeout = kTransferTimeout);

    /// Sends a command with data for the camera, and waits until it is done.
    void TransferOut(CameraId camera, std::span<const std::byte> cdb,
                     std::span<const std::byte> data,
                     std::chrono::milliseconds timeout = kTransferTimeout);

    /// Sends a command without data, and waits until it is done.
    void TransferNoData(CameraId camera, std::span<const std::byte> cdb,
                        std::chrono::milliseconds timeout = kTransferTimeout);

    /// The same in two steps, so that any number of requests can be outstanding: Send returns when
    /// the request has left, Wait() has its answer. `cdb` has 1 to kCdbLimit bytes, `data` at most
    /// kTransferOutLimit.
    /// Throws kBadArgument and kNoSuchCamera, both before anything is sent.
    RequestId SendTransferIn(CameraId camera, std::span<const std::byte> cdb,
                             std::chrono::milliseconds timeout = kTransferTimeout);
    RequestId SendTransferOut(CameraId camera, std::span<const std::byte> cdb,
                              std::span<const std::byte> data,
                              std::chrono::milliseconds timeout = kTransferTimeout);
    RequestId SendTransferNoData(CameraId camera, std::span<const std::byte> cdb,
                                 std::chrono::milliseconds timeout = kTransferTimeout);

    /// Waits for the answer to a request and returns its data, empty for all but SendTransferIn().
    /// Requests may be waited for in any order, each until it has returned or thrown kRefused.
    /// Throws kRefused; kTimedOut, after which one can wait for it again; kBadArgument for a
    /// request that is not outstanding.
    std::vector<std::byte> Wait(RequestId request,
                                std::chrono::milliseconds timeout = kTransferTimeout);

private:
    class Session;
    std::unique_ptr<Session> session;
};

/// Most bytes of a command descriptor block that the service passes on.
inline constexpr std::size_t kCdbLimit = 8;

/// Most bytes that one TransferIn() returns, and that one TransferOut() takes.
inline constexpr std::size_t kTransferInLimit = 65'536;
inline constexpr std::size_t kTransferOutLimit = 0x7FFF'FFFF;

// SCSI commands (SPC, SBC) for the functions above.

/// Standard INQUIRY data, 36 bytes, for DecodeInquiry().
std::array<std::byte, 6> InquiryCdb() noexcept;

std::array<std::byte, 6> TestUnitReadyCdb() noexcept;

/// READ CAPACITY(10), for DecodeCapacity(). Two bytes short, as only kCdbLimit bytes are passed on;
/// the two are always zero.
std::array<std::byte, 8> ReadCapacityCdb() noexcept;

/// What READ(6) can address, and how many blocks one command can ask for.
inline constexpr std::uint32_t kRead6BlockLimit = 1U << 21;
inline constexpr std::uint32_t kRead6CountLimit = 255;

/// READ(6) of `count` blocks from `first` on. `count` times the block length must not exceed
/// kTransferInLimit, which for the usual blocks of 512 bytes makes 128 blocks.
/// Throws kBadArgument if count is 0 or above kRead6CountLimit, or a block is out of reach.
std::array<std::byte, 6> Read6Cdb(std::uint32_t first, std::uint32_t count);

/// Standard INQUIRY data. The strings come without trailing spaces, and with '?' for each byte that
/// is not printable ASCII.
struct Inquiry {
    std::uint8_t deviceType;  ///< peripheral device type: 0 is a disk, 5 a CD-ROM drive
    bool removable;
    std::string vendor;
    std::string product;
    std::string revision;
};

/// Throws kBadAnswer if there are fewer than the 36 bytes that every device must have.
Inquiry DecodeInquiry(std::span<const std::byte> data);

struct Capacity {
    std::uint64_t blockCount;
    std::uint32_t blockLength;  ///< in bytes, never 0
};

/// Throws kBadAnswer if there are fewer than 8 bytes, or the block length is 0.
Capacity DecodeCapacity(std::span<const std::byte> data);

}  // namespace orvik
