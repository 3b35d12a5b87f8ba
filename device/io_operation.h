#pragma once

#include <cstdint>
#include <utility>

#include <windows.h>
#include <boost/function.hpp>
#include <boost/smart_ptr/shared_ptr.hpp>

class IoOperation;
class KeptOperation;

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
/// the port, even if its owner is destroyed before. An OVERLAPPED that is no longer pending does
/// not prove that: a packet that is queued but not yet taken already shows its final status. The
/// dispatcher frees an operation whose packet has error 995, without calling the callback. An owner
/// that uses an operation again and again holds it in a KeptOperation, which follows these rules.
/// Memory that the system may still write to must live as long as the operation. The simplest way
/// is to let the callback own it (see OwnerLink).
///
/// Thread: dispatcher only, except that any thread may make and post one.
class IoOperation {
public:
    enum Status : std::uint32_t {
        kPending = 0,   ///< issued, or ready to be issued
        kComplete = 1,  ///< its packet came with success
        kError = 2,     ///< its packet came with a failure
        kQuit = 3,      ///< the packet that ends the dispatcher; never set by I/O
    };

    explicit IoOperation(IoCallback completionCallback);
    ~IoOperation();

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
    /// the record of a device event) or null. The code that consumes the packet frees it, never the
    /// operation itself.
    void* transferBuffer = nullptr;

    /// Set and used by KeptOperation alone; null for an operation that travels alone. Public only
    /// because mixed access would leave the position of `overlapped` to the compiler.
    KeptOperation* keeper = nullptr;
};

/// An operation that its owner keeps and issues again and again: pipe accept, read and write.
///
/// The destructor frees the operation unless it is issued. An issued one is left to the port; its
/// callback is called with the packet, and must free it and touch nothing of the owner.
/// Thread: dispatcher only.
class KeptOperation {
public:
    explicit KeptOperation(IoCallback callback);
    ~KeptOperation();

    KeptOperation(const KeptOperation&) = delete;
    KeptOperation& operator=(const KeptOperation&) = delete;

    /// Null once the dispatcher has freed it, because its packet came with error 995.
    IoOperation* Get() const noexcept { return operation; }

    /// Call it when the I/O has been started and a packet will come.
    void SetIssued() noexcept { issued = true; }

    /// True until its packet has been taken off the port, even if the operation refused the packet.
    bool IsIssued() const noexcept { return issued; }

private:
    friend class IoOperation;

    IoOperation* operation;
    bool issued = false;
};

/// Frees an operation and the block that travels with it: the end of one whose owner is gone.
/// As a callback it touches nothing but the operation.
void DiscardOperation(IoOperation* operation) noexcept;

/// How the callbacks of an owner's operations find their owner, which may be destroyed before the
/// packets come. The owner makes one, shares it with each callback, and sets `owner` to null in
/// its destructor. Memory that the system uses while an operation is issued can be added by
/// deriving from it: it lives until the last packet has been taken.
/// Thread: dispatcher only. The shared ownership around it is thread-safe, because the window
/// thread makes callbacks that share the Server's.
template <typename Owner>
struct OwnerLink {
    Owner* owner = nullptr;  // null once the owner is destroyed
};

/// The lifetime rule of every operation with an owner: a callback that calls `handler`, a member
/// function of the owner, while the owner is alive, and otherwise discards the packet.
/// `link` is an OwnerLink of the owner or derived from one. Allocates nothing.
template <auto handler, typename Link>
IoCallback CallOwner(boost::shared_ptr<Link> link) {
    return [link = std::move(link)](IoOperation* operation) {
        // Nothing of this callable is touched after either call: both may destroy it.
        if (link->owner != nullptr)
            (link->owner->*handler)(operation);
        else
            DiscardOperation(operation);
    };
}
