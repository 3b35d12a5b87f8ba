// The client library of OrvikService: cameras and their SCSI commands for desktop programs.
//
//     orvik::Client client;
//     for (const orvik::CameraId camera : client.Cameras()) {
//         const auto answer = client.TransferIn(camera, orvik::InquiryCdb());
//         std::cout << orvik::DecodeInquiry(answer).product << '\n';
//     }
//
// All narrow texts are UTF-8. Sizes are in bytes.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

/// The version of this header.
#define ORVIK_CLIENT_VERSION "4.0.4"
#define ORVIK_CLIENT_VERSION_MAJOR 4
#define ORVIK_CLIENT_VERSION_MINOR 0
#define ORVIK_CLIENT_VERSION_PATCH 4

namespace orvik {

/// The version of the library that the program is linked with, such as "4.0.4".
std::string_view Version() noexcept;

/// The kind of a failure, for programs; Error::what() describes it in words.
enum class ErrorKind {
    kNotInstalled,  ///< the service OrvikService is not installed
    kStopped,       ///< the service is not running, or is stopping
    kStarting,      ///< the service was still starting at the deadline
    kBusy,          ///< the service is running, but accepted no connection before the deadline
    kAccessDenied,  ///< this user may not open the camera pipe, or query the service's state
    kWrongServer,   ///< a process that is not the service serves the camera pipe
    kServiceGone,   ///< the service has ended, or an earlier error has closed the connection
    kTimedOut,      ///< the deadline passed
    kCancelled,     ///< Cancel() was called
    kNoSuchCamera,  ///< the service has not announced this camera, or has reported it gone
    kRefused,       ///< the camera or its driver refused the command; see "Refused" at Client
    kBadAnswer,     ///< the service or the camera sent invalid data
    kBadArgument,   ///< an argument is outside its range; nothing was sent
    kSystem,        ///< another system call failed
    kCameraGone,    ///< the camera was unplugged, or given up by the service, during the command
};

/// The kind in words, such as "timed out".
std::string_view ToString(ErrorKind kind) noexcept;

/// Thrown for every failure except out of memory (std::bad_alloc).
class Error : public std::runtime_error {
public:
    /// `systemCode` is a Windows error code, or 0. The system's words for it are added to the text.
    Error(ErrorKind errorKind, const std::string& text, std::uint32_t systemCode = 0);

    ErrorKind Kind() const noexcept { return kind; }

    /// The Windows error code that caused the failure; 0 if there is none.
    std::uint32_t SystemCode() const noexcept { return code; }

private:
    ErrorKind kind;
    std::uint32_t code;
};

/// The service's identifier of a camera. While the service runs, no other camera gets the same one.
using CameraId = std::uint32_t;

/// Identifies an asynchronous request of one Client.
using RequestId = std::uint32_t;

/// Default time-outs of a Client's calls.
inline constexpr std::chrono::milliseconds kConnectTimeout{5'000};
inline constexpr std::chrono::milliseconds kTransferTimeout{30'000};

/// How long a refusal waits by default for the report that the camera has gone.
inline constexpr std::chrono::milliseconds kGoneWait{100};

/// The time-out of a transfer that may take any time.
inline constexpr std::chrono::milliseconds kNoTimeout = std::chrono::milliseconds::max();

/// Maximum length of a command descriptor block: the service passes on no more.
inline constexpr std::size_t kCdbLimit = 8;

/// Maximum number of bytes that one TransferIn() returns.
inline constexpr std::size_t kTransferInLimit = 65'536;

/// Maximum number of bytes that one TransferOut() sends: the limit of a program that sets none
/// (ConnectOptions), and the greatest that a program can set.
inline constexpr std::size_t kDefaultTransferOutLimit = 65'536;
inline constexpr std::size_t kTransferOutLimit = 0x7FFF'FFFF;

/// Cancels attempts to connect. Copies cancel the same attempts.
/// Thread: any.
class ConnectCanceller {
public:
    ConnectCanceller();
    ConnectCanceller(const ConnectCanceller& other) = default;  // a move copies too
    ConnectCanceller& operator=(const ConnectCanceller& other) = default;

    /// Ends the attempt in progress, and each later one with the same canceller.
    void Cancel() const;

private:
    friend class Client;
    struct State;
    std::shared_ptr<State> state;
};

/// How to connect.
struct ConnectOptions {
    std::chrono::milliseconds timeout = kConnectTimeout;

    /// Checks before anything is sent that the pipe's server is the process that the service
    /// control manager runs as OrvikService. False for a service that runs in a console.
    bool checkServer = true;

    /// The name of the pipe; empty: the service's own. For tests.
    std::wstring pipe{};

    /// Maximum number of bytes that one transfer sends to a camera, up to kTransferOutLimit. Set
    /// more than the default only for a camera that is known to accept it: many USB adapters accept
    /// 64 KiB. Windows fails a longer transfer at once, and the service then gives up the camera
    /// until it is plugged in again.
    std::size_t transferOutLimit = kDefaultTransferOutLimit;

    /// How long a refusal waits for the report that the camera has gone (see "Refused" at Client).
    /// Set 0 in a program that treats both in the same way, or that is not the main communicator.
    std::chrono::milliseconds goneWait = kGoneWait;

    /// Cancels the attempt to connect: the constructor throws kCancelled. It still disconnects as
    /// the destructor does. Without effect once connected.
    ConnectCanceller canceller{};
};

/// What a subscriber's handler is called with.
struct Event {
    enum class Kind {
        kCameraAttached,
        kCameraDetached,
        kServiceGone,  ///< the connection is closed. The last event.
    };
    Kind kind;
    CameraId camera;               ///< 0 for kServiceGone
    std::optional<Error> error{};  ///< of kServiceGone: what closed the connection
};

/// Called on the client's thread.
using EventHandler = std::function<void(const Event& event)>;

/// The result of an asynchronous transfer.
struct TransferResult {
    std::optional<Error> error{};   ///< none if it succeeded
    std::vector<std::byte> data{};  ///< from the camera; empty except for StartTransferIn()
};

/// Called once, on the client's thread.
using Completion = std::function<void(TransferResult result)>;

/// Owns an event handler, which is called until this object is destroyed or assigned to. It may
/// outlive the Client.
/// Thread: one at a time. The handler may end its own subscription.
class Subscription {
public:
    Subscription() noexcept = default;  ///< without a handler
    ~Subscription();
    Subscription(Subscription&& other) noexcept = default;
    Subscription& operator=(Subscription&& other) noexcept;

    /// Returns at once. No further call of the handler begins, but a call that has begun on the
    /// client's thread still runs to its end, so everything that the handler uses must live until
    /// then. If the handler itself calls End(), the current call is the last one.
    void End() noexcept;

private:
    friend class Client;
    friend class PersistentClient;
    std::shared_ptr<const void> handler;
};

/// Sense data: why a camera refused a command.
struct Sense {
    std::uint8_t key;        ///< sense key, 0 to 15
    std::uint8_t code;       ///< additional sense code
    std::uint8_t qualifier;  ///< additional sense code qualifier
    bool deferred;           ///< about a command before the last one
    std::string text;        ///< in the words of SPC, such as "NOT READY: MEDIUM NOT PRESENT"
};

/// A connection to the service.
///
/// Main communicator: a client that connects while no desktop program is connected becomes the main
/// communicator. It alone hears of cameras that come and go, and while it stays connected the
/// service starts no desktop program. So a tool should connect, do its work and disconnect. Every
/// other client learns only which cameras are present when it connects.
///
/// Threads: any thread may make any call, except destruction and moves, which need exclusive
/// access. Each Client has one thread of its own, the client's thread, which calls event handlers
/// and completions one after the other. Those may make every call of this library, and may destroy
/// the Client. An exception that they throw ends the program. A handler that takes long delays the
/// ones after it, so long work belongs on another thread.
///
/// Errors: every call may throw Error and std::bad_alloc. When the service ends, sends invalid
/// data, or the pipe fails, the connection is closed: every outstanding request ends at once, with
/// kServiceGone, kBadAnswer or kSystem, and each later call throws kServiceGone. The same holds
/// when a request could not be sent completely before its deadline (kTimedOut). To reconnect,
/// assign a new Client.
///
/// Refused: the service answers a command that the camera refused and one whose camera has been
/// unplugged in the same way. It reports to the main communicator which cameras have gone, but
/// sometimes only after the answer. So this library waits for that report
/// (ConnectOptions::goneWait), and then says kCameraGone, else kRefused. A client that is not the
/// main communicator always gets kRefused.
///
/// Unknown cameras: a request for a camera that the service does not know ends the service's run,
/// for all clients. The calls below refuse a camera that was never announced or has been reported
/// gone. But the service reports that only to the main communicator; any other client must connect
/// anew before it names a camera after a pause. One gap remains for all: the first request for a
/// camera that is being unplugged can cross the service's report.
///
/// Disconnecting: closing the connection at the wrong moment ends the service's run too. The
/// destructor waits for a safe moment, so a program must destroy its Client before it ends. A
/// program that is killed cannot; the service's run may end then.
class Client {
public:
    /// Connects, and returns when the cameras present are known.
    /// Throws kNotInstalled, kStopped, kStarting, kBusy, kAccessDenied, kWrongServer (which can
    /// take two seconds longer than the time-out), kTimedOut when the service accepts the
    /// connection but does not answer, and kCancelled.
    explicit Client(const ConnectOptions& options = {});

    /// Disconnects at a moment that is safe for the service. That usually takes as long as one
    /// round trip, and at most two seconds if the service is busy with a command. On Windows the
    /// service serves no client while a command runs. Abandons outstanding requests. No
    /// handler or completion is called any more, but a call in progress on the client's thread may
    /// end only after the destructor has returned.
    ~Client();

    Client(Client&& other) noexcept;
    Client& operator=(Client&& other) noexcept;  ///< disconnects first, as the destructor does

    /// The cameras present as far as the service has told this client, in the order announced.
    std::vector<CameraId> Cameras() const;

    /// Makes a round trip to the service that touches no camera. Throws kTimedOut.
    void RoundTrip(std::chrono::milliseconds timeout = kTransferTimeout);

    /// Calls `handler` on the client's thread, with kCameraAttached for each camera present, then
    /// with each event in order. The first call may begin before this function returns. If the
    /// connection is closed already, the handler is called with kServiceGone only.
    /// Throws kBadArgument if `handler` is empty.
    [[nodiscard]] Subscription Subscribe(EventHandler handler);

    /// Sends a command that returns data, and waits for the data: at most kTransferInLimit bytes,
    /// and often fewer than the command asked for. `cdb`, the command descriptor block, has 1 to
    /// kCdbLimit bytes. It is copied, and so is the data of the calls below.
    /// Throws kRefused, kCameraGone, kTimedOut, and before anything is sent kBadArgument and
    /// kNoSuchCamera.
    /// After kTimedOut the answer is discarded when it arrives.
    std::vector<std::byte> TransferIn(CameraId camera, std::span<const std::byte> cdb,
                                      std::chrono::milliseconds timeout = kTransferTimeout);

    /// Sends a command with data for the camera, at most ConnectOptions::transferOutLimit bytes,
    /// and waits until the camera has executed it. The service holds all the data in memory, and
    /// ends its run if that fails.
    void TransferOut(CameraId camera, std::span<const std::byte> cdb,
                     std::span<const std::byte> data,
                     std::chrono::milliseconds timeout = kTransferTimeout);

    /// Sends a command without data, and waits until the camera has executed it.
    void TransferNoData(CameraId camera, std::span<const std::byte> cdb,
                        std::chrono::milliseconds timeout = kTransferTimeout);

    /// Asks the camera for the sense data, which explains its last refusal: call it right after
    /// kRefused. Windows decides whether there is any: a driver may have asked for the sense data
    /// itself, and the service passes on none. Then the camera says NO SENSE. The sense data of a
    /// refusal is also lost when another command, of any program, reaches the camera first.
    /// Throws as TransferIn() does.
    Sense RequestSense(CameraId camera, std::chrono::milliseconds timeout = kTransferTimeout);

    /// Asynchronous forms: they return when the request has been sent, within `timeout` and at most
    /// kTransferTimeout, and `completion` is called with the result, possibly before they return.
    /// When the camera has not answered within `timeout`, the result is kTimedOut, and the answer
    /// is discarded when it arrives. Any number of requests can be outstanding, and they complete
    /// in any order. `completion` must not be empty. If these functions throw, it is not called.
    RequestId StartTransferIn(CameraId camera, std::span<const std::byte> cdb,
                              Completion completion,
                              std::chrono::milliseconds timeout = kNoTimeout);
    RequestId StartTransferOut(CameraId camera, std::span<const std::byte> cdb,
                               std::span<const std::byte> data, Completion completion,
                               std::chrono::milliseconds timeout = kNoTimeout);
    RequestId StartTransferNoData(CameraId camera, std::span<const std::byte> cdb,
                                  Completion completion,
                                  std::chrono::milliseconds timeout = kNoTimeout);

    /// Ends an asynchronous request: its completion is called with kCancelled, and the answer is
    /// discarded when it arrives. The camera still executes the command. Returns at once. Returns
    /// false if the request is not outstanding: its completion has been called, or is about to be.
    bool Cancel(RequestId request);

private:
    class Connection;
    std::shared_ptr<Connection> connection;
};

// SCSI commands (SPC, SBC) for the functions above.

/// Standard INQUIRY data, 36 bytes, for DecodeInquiry().
std::array<std::byte, 6> InquiryCdb() noexcept;

std::array<std::byte, 6> TestUnitReadyCdb() noexcept;

/// READ CAPACITY(10), for DecodeCapacity(). Without the last two bytes, which are always zero,
/// because the service passes on only kCdbLimit bytes.
std::array<std::byte, 8> ReadCapacityCdb() noexcept;

/// READ(6) and WRITE(6) reach the blocks below kRead6BlockLimit, at most kRead6CountLimit at a
/// time.
inline constexpr std::uint32_t kRead6BlockLimit = 1U << 21;
inline constexpr std::uint32_t kRead6CountLimit = 255;

/// READ(6) of `count` blocks, starting at `first`. `count` times the block length must not exceed
/// kTransferInLimit: for the usual blocks of 512 bytes, `count` is at most 128.
/// Throws kBadArgument unless `count` is from 1 to kRead6CountLimit, and `first` + `count` at most
/// kRead6BlockLimit.
std::array<std::byte, 6> Read6Cdb(std::uint32_t first, std::uint32_t count);

/// WRITE(6) of `count` blocks, starting at `first`, for TransferOut(). Throws as Read6Cdb() does.
std::array<std::byte, 6> Write6Cdb(std::uint32_t first, std::uint32_t count);

/// REQUEST SENSE for up to 252 bytes of sense data, for DecodeSense(). See Client::RequestSense().
std::array<std::byte, 6> RequestSenseCdb() noexcept;

/// Standard INQUIRY data. The strings have no trailing spaces, and '?' for each byte that is not
/// printable ASCII.
struct Inquiry {
    std::uint8_t deviceType;  ///< peripheral device type: 0 is a disk, 5 a CD-ROM drive
    bool removable;
    std::string vendor;
    std::string product;
    std::string revision;
};

/// Throws kBadAnswer if `data` has fewer than 36 bytes, the minimum of the standard.
Inquiry DecodeInquiry(std::span<const std::byte> data);

/// Decodes sense data of the fixed format and of the format with descriptors. A code that the
/// library does not know is in the text as numbers.
/// Throws kBadAnswer if `data` has fewer than 8 bytes, or another format.
Sense DecodeSense(std::span<const std::byte> data);

struct Capacity {
    std::uint64_t blockCount;
    std::uint32_t blockLength;  ///< in bytes, never 0
};

/// Throws kBadAnswer if `data` has fewer than 8 bytes, or the block length is 0.
Capacity DecodeCapacity(std::span<const std::byte> data);

}  // namespace orvik
