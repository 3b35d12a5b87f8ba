// A heap that makes memory errors visible at the instruction that makes them. Linking it (target
// guarded_heap) replaces malloc, calloc, realloc and free of the whole program, and so operator
// new.
//
// - Each block ends at a page that can't be touched: an overrun faults. Blocks are aligned to 16
//   bytes, so up to 15 bytes may lie between; they hold a pattern that free() checks.
// - A freed block's pages are given back and its addresses never used again: an access
//   faults, however late.
// - free() of what is no live block stops the program too, and so does any other crash.
//
// The program then ends at once with exit code kErrorExitCode, and standard error says what it was
// and from where. Where the system itself writes into a freed block, on behalf of an operation that
// is still issued, the call that takes the operation's packet fails instead.
//
// Blocks that the C runtime's library allocates itself are passed to its own free().
//
// It needs GCC or Clang, with a linker that knows --wrap. Elsewhere the target links
// ordinary_heap.cpp, which only counts the blocks of operator new; tests that need more begin with
// ORVIK_NEEDS_GUARDED_HEAP.
//
// Thread: any.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace guarded_heap {

/// Exit code after an error that the heap has noticed.
inline constexpr int kErrorExitCode = 86;

/// Largest size for which blocks are counted by their size.
inline constexpr std::size_t kLargestCounted = 70000;

/// False on an ordinary heap.
bool IsGuarded() noexcept;

/// Blocks that are allocated now, all together.
std::size_t LiveBlocks() noexcept;

/// Blocks of exactly `size` bytes that are allocated now; `size` is at most kLargestCounted.
std::size_t LiveBlocks(std::size_t size) noexcept;

/// How many blocks of each size there were once.
class Snapshot {
public:
    /// The state now. Allocates nothing.
    void Take() noexcept;

    /// What has changed since: "" or, say, "112 bytes: +1, larger: -2".
    std::string Difference() const;

private:
    std::size_t all = 0;
    std::array<std::uint32_t, kLargestCounted + 1> bySize{};
};

/// Records what the calling thread allocates from here to Stop(). One at a time in the program.
class AllocationRecord {
public:
    AllocationRecord() noexcept;
    ~AllocationRecord();

    AllocationRecord(const AllocationRecord&) = delete;
    AllocationRecord& operator=(const AllocationRecord&) = delete;

    /// Ends the record; returns the sizes in the order of allocation, at most kLongest of them.
    std::vector<std::size_t> Stop();

    static constexpr std::size_t kLongest = 1000;
};

/// While it lives, each free() leaves kLastError as the thread's last error: code that reads the
/// error of a failed call only after a free() is found out. Not for all programs, because Boost's
/// file system library does just that. One at a time in the program; all threads.
class ErrorChangingFree {
public:
    ErrorChangingFree() noexcept;
    ~ErrorChangingFree();

    ErrorChangingFree(const ErrorChangingFree&) = delete;
    ErrorChangingFree& operator=(const ErrorChangingFree&) = delete;

    static constexpr std::uint32_t kLastError = 0x2BADF4EE;  // no call of Windows gives it
};

/// Makes one allocation of the calling thread fail while it lives: malloc returns null, operator
/// new throws std::bad_alloc. One at a time in the program.
class FailingAllocation {
public:
    /// The allocation that fails is the `number`-th from here on, counted from 1.
    explicit FailingAllocation(std::size_t number) noexcept;

    /// The next allocation of exactly `size` bytes fails.
    static FailingAllocation OfSize(std::size_t size) noexcept { return {1, size}; }

    ~FailingAllocation();

    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

    /// Whether it has failed by now.
    bool HasFailed() const noexcept;

private:
    FailingAllocation(std::size_t number, std::size_t size) noexcept;
};

}  // namespace guarded_heap

/// Skips the test on an ordinary heap.
#define ORVIK_NEEDS_GUARDED_HEAP()  \
    if (!guarded_heap::IsGuarded()) \
    GTEST_SKIP() << "needs the guarded heap"
