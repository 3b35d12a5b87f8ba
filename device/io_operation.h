#pragma once

#include <cstdint>

#include <boost/function.hpp>
#include <windows.h>

class IoOperation;

/// Called on the dispatcher thread with the operation whose packet has been taken off the port.
/// May destroy the operation, and with it this very callable. Calling an empty one throws
/// boost::bad_function_call. A callable of at most 24 bytes is held without an allocation.
using IoCallback = boost::function<void(IoOperation*)>;

/// One overlapped operation: a pipe connect, read or write, a camera transfer, a posted device
/// event or the quit signal. The completion port knows it by the address of its `overlapped`.
///
/// Use: construct (or Reset()), start the system call with &overlapped, then exactly one of
/// Complete() or Error(), which calls the callback.
///
/// Ownership: once issued, an operation belongs to the port until its packet has been taken off
/// it, whoever else goes away first. "Its OVERLAPPED is not pending any more" does not say that:
/// a packet that is queued but not yet taken already shows its final status. So an owner that
/// keeps an operation asks `issued`, and leaves an issued one behind with a callback that frees
/// it. What the system may still write into must live as long as the operation; the simplest way
/// is to let the callback own it. A packet with error 995 frees its operation without the callback.
///
/// Thread: dispatcher only, but for making and posting one, which any thread may do.
class IoOperation {
public:
    enum Status : std::uint32_t {
        kPending = 0,   ///< issued, or ready to be issued
        kComplete = 1,  ///< its packet came with success
        kError = 2,     ///< its packet came with a failure
        kQuit = 3,      ///< the packet that ends the dispatcher; never set by I/O
    };

    explicit IoOperation(IoCallback completionCallback);

    IoOperation(const IoOperation&) = delete;
    IoOperation& operator=(const IoOperation&) = delete;

    /// The operation that holds `member`, which must be the `overlapped` of one. Not checked.
    static IoOperation* FromOverlapped(OVERLAPPED* member) noexcept;

    /// Makes a finished operation ready for its next use. On a pending one it only writes a line
    /// to standard error. Leaves `overlapped` and `transferBuffer` as they are.
    void Reset();

    /// Records success and calls the callback. Unless the operation is pending it only writes a
    /// line to standard error. Passes on what the callback throws.
    void Complete(std::uint32_t bytes, std::uint64_t key);

    /// Records failure with a system error code and calls the callback; otherwise as Complete().
    void Error(std::uint32_t code);

    // `overlapped` directly follows `status`: FromOverlapped() goes back over it.
    std::uint32_t status = kPending;
    OVERLAPPED overlapped{};             ///< its event handle stays null
    IoCallback callback;                 ///< may be empty if the packet never calls it
    std::uint64_t completionKey = 0;     ///< of the packet; set by Complete()
    std::uint32_t bytesTransferred = 0;  ///< of the packet; set by Complete()
    std::uint32_t errorCode = 0;         ///< system error code; set by Error()

    /// A block from malloc that travels with the operation (the pass-through block of a transfer,
    /// the record of a device event) or null. Freed by whoever consumes the packet, never by the
    /// operation itself.
    void* transferBuffer = nullptr;

    /// True from a successful start of the I/O until Complete() or Error() is called for its
    /// packet, also when they refuse it. Set by owners that keep the operation (pipe accept, read
    /// and write); an operation that travels alone has no owner who would ask.
    bool issued = false;
};

/// Frees an operation and the block that travels with it: the end of one that nobody waits for.
/// As a callback it touches nothing but the operation.
void DiscardOperation(IoOperation* operation) noexcept;
