// The client library of OrvikService: cameras and their SCSI commands for desktop programs.
//
//     orvik::Client client;
//     for (const orvik::CameraId camera : client.Cameras()) {
//         const auto answer = client.TransferIn(camera, orvik::InquiryCdb());
//         std::cout << orvik::DecodeInquiry(answer).product << '\n';
//     }
//
// All narrow texts are UTF-8. Sizes are bytes.
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
#include <vector>

namespace orvik {

/// What went wrong, for programs; Error::what() says it in words.
enum class ErrorKind {
    kNotInstalled,  ///< there is no service OrvikService
    kStopped,       ///< the service is not running, or is stopping
    kStarting,      ///< the service was still starting at the deadline
    kBusy,          ///< the service runs, but took no connection before the deadline
    kAccessDenied,  ///< this user may not open the camera pipe, or ask for the service
    kWrongServer,   ///< the camera pipe is served by a process that is not the service
    kServiceGone,   ///< the service ended, or an earlier error closed the connection
    kTimedOut,      ///< the deadline passed
    kCancelled,     ///< Cancel() was called
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

/// How to connect.
struct ConnectOptions {
    std::chrono::milliseconds timeout = kConnectTimeout;

    /// Whether to send nothing unless the pipe's server is the process that the service control
    /// manager runs as OrvikService. Off for a service that runs in a console.
    bool checkServer = true;

    std::wstring pipe = LR"(\\.\pipe\orvikcamera)";  ///< another one only for tests
};

/// What a subscriber is told of.
struct Event {
    enum class Kind {
        kCameraAttached,
        kCameraDetached,
        kServiceGone,  ///< the connection is closed; `camera` says nothing. The last event.
    };
    Kind kind;
    CameraId camera;
};

/// Called on the client's thread.
using EventHandler = std::function<void(const Event& event)>;

/// How an asynchronous transfer ended.
struct TransferResult {
    std::optional<Error> error{};   ///< none if it succeeded
    std::vector<std::byte> data{};  ///< what the camera returned; empty but for transfers in
};

/// Called on the client's thread, once.
using Completion = std::function<void(TransferResult result)>;

/// A handler that is told of events. Ends when destroyed or assigned to; may outlive the Client.
/// Thread: one at a time; ending it is allowed within its own handler.
class Subscription {
public:
    Subscription() noexcept = default;  ///< of nothing
    ~Subscription();
    Subscription(Subscription&& other) noexcept = default;
    Subscription& operator=(Subscription&& other) noexcept;

    /// Returns at once: no call of the handler begins any more, but one that has begun on the
    /// client's thread, if only just, still runs to its end. So what the handler uses must outlive
    /// that; within the handler itself this is the last call.
    void End() noexcept;

private:
    friend class Client;
    struct State;
    std::shared_ptr<State> state;
};

/// A connection to the service.
///
/// A client that connects while no desktop program is connected becomes the one that is told of
/// cameras that come and go, and the service starts no desktop program while it stays. So a tool
/// connects, asks and leaves. Any other client learns of the cameras present when it connects, and
/// is told of no change.
///
/// Thread: any, except for destruction and moves, after which nobody else may call it. Each Client
/// has one thread of its own, the client's thread, that calls handlers and completions, one after
/// the other. They may call everything here, and may destroy the Client. What they throw ends the
/// program. While one runs no other is called: long work belongs elsewhere.
///
/// Every call may throw Error and std::bad_alloc. When the service goes, when it sends what makes
/// no sense, or when the pipe fails, the connection is closed: each outstanding request ends at
/// once, with kServiceGone, kBadAnswer or kSystem, and each further call throws kServiceGone; to
/// reconnect, assign another Client. The same holds when a request does not leave in time
/// (kTimedOut), because it may have left in part.
///
/// Naming a camera that the service doesn't know ends the service's run, for everybody. The calls
/// below refuse a camera that was never announced or has been reported gone, but only the client
/// that is told of cameras that go can know: any other makes a new Client before it names a camera
/// after a pause. (A moment remains for all: the first request for a camera that is being unplugged
/// can cross the report.) Leaving at a wrong moment ends the run too, so a program destroys its
/// Client before it ends. Commands and data are copied, and needed only for the call.
class Client {
public:
    /// Connects, and returns when the cameras present are known.
    /// Throws kNotInstalled, kStopped, kStarting, kBusy, kAccessDenied, kWrongServer, and kTimedOut
    /// when it is connected but the service is silent.
    explicit Client(const ConnectOptions& options = {});

    /// Leaves in a way that does not disturb the service, which can take a moment, at most two
    /// seconds if the service hangs. Outstanding requests are given up: no handler or completion is
    /// called any more, one that is under way on the client's thread may still be ending.
    ~Client();

    Client(Client&& other) noexcept;
    Client& operator=(Client&& other) noexcept;  ///< as if destroyed before

    /// The cameras present as far as this client has been told, in the order announced.
    std::vector<CameraId> Cameras() const;

    /// Asks the service for nothing, and returns when it has answered: a round trip to it and to no
    /// camera. Throws kTimedOut.
    void RoundTrip(std::chrono::milliseconds timeout = kTransferTimeout);

    /// Has `handler` called for each camera present, then for each event, in order, the first call
    /// possibly before this returns. If the connection is closed, only kServiceGone comes.
    [[nodiscard]] Subscription Subscribe(EventHandler handler);

    /// Sends a command that returns data, and waits for the data: at most kTransferInLimit bytes,
    /// and often fewer than the command asked for. `cdb` has 1 to kCdbLimit bytes.
    /// Throws kRefused, kTimedOut, and before anything is sent kBadArgument and kNoSuchCamera.
    /// After kTimedOut the answer is dropped when it comes.
    std::vector<std::byte> TransferIn(CameraId camera, std::span<const std::byte> cdb,
                                      std::chrono::milliseconds timeout = kTransferTimeout);

    /// Sends a command with data for the camera, at most kTransferOutLimit bytes, and waits until
    /// it is done. The service takes all of it into its memory, and ends its run if it can't:
    /// send no more at a time than a camera takes.
    void TransferOut(CameraId camera, std::span<const std::byte> cdb,
                     std::span<const std::byte> data,
                     std::chrono::milliseconds timeout = kTransferTimeout);

    /// Sends a command without data, and waits until it is done.
    void TransferNoData(CameraId camera, std::span<const std::byte> cdb,
                        std::chrono::milliseconds timeout = kTransferTimeout);

    /// The same, but they return when the request has left, and `completion` gets the answer,
    /// possibly before they return. Any number can be outstanding, and they end in any order. When
    /// they throw, `completion` is not called.
    RequestId StartTransferIn(CameraId camera, std::span<const std::byte> cdb,
                              Completion completion);
    RequestId StartTransferOut(CameraId camera, std::span<const std::byte> cdb,
                               std::span<const std::byte> data, Completion completion);
    RequestId StartTransferNoData(CameraId camera, std::span<const std::byte> cdb,
                                  Completion completion);

    /// Ends an asynchronous request: `completion` is called with kCancelled, soon, and the answer
    /// is dropped when it comes. The camera still does what it was asked. Returns at once; false if
    /// the request is not outstanding: its completion has been called or is about to be.
    bool Cancel(RequestId request);

private:
    class Connection;
    std::shared_ptr<Connection> connection;
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

/// WRITE(6), for TransferOut() of `count` blocks from `first` on. Throws as Read6Cdb() does.
std::array<std::byte, 6> Write6Cdb(std::uint32_t first, std::uint32_t count);

/// REQUEST SENSE for up to 252 bytes of sense data about the camera's last refusal.
std::array<std::byte, 6> RequestSenseCdb() noexcept;

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
