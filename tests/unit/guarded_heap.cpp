#include "guarded_heap.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <windows.h>

// The linker's --wrap option sends every call of malloc to __wrap_malloc.
extern "C" {
void* __wrap_malloc(std::size_t size);
void* __wrap_calloc(std::size_t count, std::size_t size);
void* __wrap_realloc(void* block, std::size_t size);
void __wrap_free(void* block);
}

// Nothing here may allocate.
namespace {

constexpr std::size_t kPageSize = 4096;
constexpr std::size_t kAlignment = 16;
constexpr std::size_t kRangeSize = std::size_t{128} << 30;  // addresses, not memory
constexpr unsigned char kSlackPattern = 0xFB;
constexpr unsigned char kFreshPattern = 0xA5;
constexpr std::size_t kFilled = 65536;  // of a fresh block; large ones keep the system's zeros
constexpr std::uint64_t kMagic = 0x6b636f6c42657648;

/// Directly before each block. An underrun breaks `check`.
struct BlockHeader {
    std::size_t size;     // as asked for
    std::uint64_t check;  // kMagic and the header's own address
};
static_assert(sizeof(BlockHeader) == kAlignment);

SRWLOCK initialisation = SRWLOCK_INIT;
std::atomic<char*> range{nullptr};
std::atomic<std::size_t> used{0};  // of the range, in bytes

std::atomic<std::size_t> liveBlocks{0};
std::array<std::atomic<std::uint32_t>, guarded_heap::kLargestCounted + 1> liveBySize{};

std::atomic<DWORD> recordingThread{0};
std::array<std::size_t, guarded_heap::AllocationRecord::kLongest> recorded{};
std::size_t recordedCount = 0;

std::atomic<bool> freeChangesError{false};

std::atomic<DWORD> failingThread{0};
constexpr std::size_t kAnySize = SIZE_MAX;
std::size_t failingSize = kAnySize;
std::size_t allocationsUntilFailure = 0;  // 0: it has failed

/// The C runtime's own function. Not __real_free, because lld 14 gives it an import thunk that
/// leads to __wrap_free.
template <class Function>
Function* OfRuntime(const char* name) noexcept {
#ifdef _UCRT
    const HMODULE runtime = ::GetModuleHandleW(L"ucrtbase.dll");
#else
    const HMODULE runtime = ::GetModuleHandleW(L"msvcrt.dll");
#endif
    return reinterpret_cast<Function*>(reinterpret_cast<void*>(::GetProcAddress(runtime, name)));
}

constexpr std::size_t RoundUp(std::size_t value, std::size_t unit) noexcept {
    return (value + unit - 1) / unit * unit;
}

bool IsInRange(const void* address) noexcept {
    const char* const start = range.load(std::memory_order_acquire);
    const auto* const position = static_cast<const char*>(address);
    return start != nullptr && position >= start && position < start + kRangeSize;
}

/// Offsets of the calling functions in the program, for addr2line.
void PrintCallers() noexcept {
    std::array<void*, 40> callers{};
    const USHORT count =
        ::RtlCaptureStackBackTrace(0, static_cast<DWORD>(callers.size()), callers.data(), nullptr);
    const auto base = reinterpret_cast<std::uintptr_t>(::GetModuleHandleW(nullptr));
    constexpr std::uintptr_t kLargestProgram = 1 << 28;
    for (USHORT index = 0; index < count; ++index) {
        const auto caller = reinterpret_cast<std::uintptr_t>(callers[index]);
        if (caller >= base && caller < base + kLargestProgram)
            std::fprintf(stderr, " %llx", static_cast<unsigned long long>(caller - base));
    }
}

[[noreturn]] void Stop(const char* what, const void* address, const void* instruction) noexcept {
    const auto base = reinterpret_cast<std::uintptr_t>(::GetModuleHandleW(nullptr));
    std::fprintf(
        stderr, "guarded heap: %s %p, thread %lu, program offsets: %llx;", what, address,
        ::GetCurrentThreadId(),
        static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(instruction) - base));
    PrintCallers();
    std::fputc('\n', stderr);
    std::fflush(stderr);
    ::TerminateProcess(::GetCurrentProcess(), guarded_heap::kErrorExitCode);
    for (;;) {
    }
}

bool IsCommitted(const void* address) noexcept {
    MEMORY_BASIC_INFORMATION information{};
    return ::VirtualQuery(address, &information, sizeof(information)) != 0 &&
           information.State == MEM_COMMIT;
}

/// Before any handler of the program: says what an access to this heap's addresses was.
LONG CALLBACK NameAccess(EXCEPTION_POINTERS* exception) {
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    if (record.ExceptionCode != EXCEPTION_ACCESS_VIOLATION || record.NumberParameters < 2)
        return EXCEPTION_CONTINUE_SEARCH;
    const auto* const address = reinterpret_cast<const char*>(record.ExceptionInformation[1]);
    if (!IsInRange(address))
        return EXCEPTION_CONTINUE_SEARCH;
    // The page in front of an intact block's guard page is the block's last.
    const bool overrun = IsInRange(address - kPageSize) && IsCommitted(address - kPageSize);
    Stop(overrun ? "access beyond the end of a block at" : "access to a freed block at", address,
         record.ExceptionAddress);
}

LPTOP_LEVEL_EXCEPTION_FILTER nextFilter = nullptr;

/// An unhandled exception ends the program as an error of this heap does. Without this, Wine's
/// debugger would end it with exit code 0, and the test would have passed.
LONG WINAPI EndOnCrash(EXCEPTION_POINTERS* exception) {
    constexpr DWORD kErrorSeverity = 3;  // in the two highest bits; GCC's own have not these
    const EXCEPTION_RECORD& record = *exception->ExceptionRecord;
    if (record.ExceptionCode >> 30 == kErrorSeverity)
        Stop("unhandled exception at", record.ExceptionAddress, record.ExceptionAddress);
    return nextFilter != nullptr ? nextFilter(exception) : EXCEPTION_CONTINUE_SEARCH;
}

/// Start of the heap's addresses; reserves them at the first call. That may come before any
/// constructor of the program, so everything that it uses is constant-initialised.
char* Range() noexcept {
    char* start = range.load(std::memory_order_acquire);
    if (start != nullptr)
        return start;
    ::AcquireSRWLockExclusive(&initialisation);
    start = range.load(std::memory_order_acquire);
    if (start == nullptr) {
        start =
            static_cast<char*>(::VirtualAlloc(nullptr, kRangeSize, MEM_RESERVE, PAGE_READWRITE));
        if (start == nullptr)
            Stop("can't reserve addresses:", nullptr, nullptr);
        ::AddVectoredExceptionHandler(1, NameAccess);
        nextFilter = ::SetUnhandledExceptionFilter(EndOnCrash);
        range.store(start, std::memory_order_release);
    }
    ::ReleaseSRWLockExclusive(&initialisation);
    return start;
}

std::size_t BlockPages(std::size_t size) noexcept {
    return RoundUp(RoundUp(size, kAlignment) + sizeof(BlockHeader), kPageSize);
}

BlockHeader* HeaderOf(void* block) noexcept {
    return static_cast<BlockHeader*>(block) - 1;
}

std::uint64_t CheckOf(const BlockHeader* header) noexcept {
    return kMagic ^ reinterpret_cast<std::uintptr_t>(header);
}

void Record(std::size_t size) noexcept {
    if (recordingThread.load(std::memory_order_relaxed) == ::GetCurrentThreadId() &&
        recordedCount < recorded.size())
        recorded[recordedCount++] = size;
}

/// Whether this allocation is the one that a FailingAllocation asks for.
bool HasToFail(std::size_t size) noexcept {
    return failingThread.load(std::memory_order_relaxed) == ::GetCurrentThreadId() &&
           (failingSize == kAnySize || failingSize == size) && allocationsUntilFailure != 0 &&
           --allocationsUntilFailure == 0;
}

void* Allocate(std::size_t size) noexcept {
    if (size > kRangeSize / 2 || HasToFail(size))
        return nullptr;
    const std::size_t pages = BlockPages(size);
    char* const start = Range() + used.fetch_add(pages + kPageSize);  // and the guard page
    if (start + pages + kPageSize > Range() + kRangeSize)
        Stop("out of addresses at", start, nullptr);
    if (::VirtualAlloc(start, pages, MEM_COMMIT, PAGE_READWRITE) == nullptr)
        return nullptr;
    const std::size_t rounded = RoundUp(size, kAlignment);
    char* const block = start + pages - rounded;
    std::memset(block, kFreshPattern, size < kFilled ? size : kFilled);
    std::memset(block + size, kSlackPattern, rounded - size);
    BlockHeader* const header = HeaderOf(block);
    header->size = size;
    header->check = CheckOf(header);

    ++liveBlocks;
    if (size < liveBySize.size())
        ++liveBySize[size];
    Record(size);
    return block;
}

void Free(void* block) noexcept {
    BlockHeader* const header = HeaderOf(block);
    if (!IsCommitted(header))
        Stop("free of a block that is freed already at", block, __builtin_return_address(0));
    if (header->check != CheckOf(header))
        Stop("free of what is no block, or one written before its start, at", block,
             __builtin_return_address(0));
    const std::size_t size = header->size;
    const std::size_t rounded = RoundUp(size, kAlignment);
    for (std::size_t index = size; index < rounded; ++index) {
        if (static_cast<unsigned char*>(block)[index] != kSlackPattern)
            Stop("free of a block written beyond its end at", block, __builtin_return_address(0));
    }
    --liveBlocks;
    if (size < liveBySize.size())
        --liveBySize[size];
    const std::size_t pages = BlockPages(size);
    if (!::VirtualFree(static_cast<char*>(block) + rounded - pages, pages, MEM_DECOMMIT))
        Stop("can't give back", block, nullptr);
    if (freeChangesError.load(std::memory_order_relaxed))
        ::SetLastError(guarded_heap::ErrorChangingFree::kLastError);
}

}  // namespace

void* __wrap_malloc(std::size_t size) {
    return Allocate(size);
}

void* __wrap_calloc(std::size_t count, std::size_t size) {
    if (size != 0 && count > SIZE_MAX / size)
        return nullptr;
    void* const block = Allocate(count * size);
    if (block != nullptr)
        std::memset(block, 0, count * size);
    return block;
}

void* __wrap_realloc(void* block, std::size_t size) {
    if (block == nullptr)
        return Allocate(size);
    if (!IsInRange(block))
        return OfRuntime<decltype(std::realloc)>("realloc")(block, size);
    void* const moved = Allocate(size);
    if (moved != nullptr) {
        const std::size_t oldSize = HeaderOf(block)->size;
        std::memcpy(moved, block, oldSize < size ? oldSize : size);
        Free(block);
    }
    return moved;
}

void __wrap_free(void* block) {
    if (block == nullptr)
        return;
    if (IsInRange(block))
        Free(block);
    else
        OfRuntime<decltype(std::free)>("free")(block);
}

namespace guarded_heap {

bool IsGuarded() noexcept {
    return true;
}

std::size_t LiveBlocks() noexcept {
    return liveBlocks;
}

std::size_t LiveBlocks(std::size_t size) noexcept {
    return liveBySize[size];
}

void Snapshot::Take() noexcept {
    all = liveBlocks;
    for (std::size_t size = 0; size < bySize.size(); ++size)
        bySize[size] = liveBySize[size];
}

std::string Snapshot::Difference() const {
    const auto now = std::make_unique<Snapshot>();
    now->Take();
    std::string text;
    const auto add = [&text](const std::string& what, std::int64_t change) {
        if (change != 0)
            text += (text.empty() ? "" : ", ") + what + ": " + (change > 0 ? "+" : "") +
                    std::to_string(change);
    };
    // Without the block that `now` itself is, which is larger than all that are counted by size.
    static_assert(sizeof(Snapshot) > kLargestCounted);
    auto larger = static_cast<std::int64_t>(now->all) - static_cast<std::int64_t>(all) - 1;
    for (std::size_t size = 0; size < bySize.size(); ++size) {
        const auto change =
            static_cast<std::int64_t>(now->bySize[size]) - static_cast<std::int64_t>(bySize[size]);
        add(std::to_string(size) + " bytes", change);
        larger -= change;
    }
    add("larger", larger);
    return text;
}

AllocationRecord::AllocationRecord() noexcept {
    recordedCount = 0;
    recordingThread = ::GetCurrentThreadId();
}

AllocationRecord::~AllocationRecord() {
    recordingThread = 0;
}

std::vector<std::size_t> AllocationRecord::Stop() {
    recordingThread = 0;
    return {recorded.begin(), recorded.begin() + static_cast<std::ptrdiff_t>(recordedCount)};
}

ErrorChangingFree::ErrorChangingFree() noexcept {
    freeChangesError = true;
}

ErrorChangingFree::~ErrorChangingFree() {
    freeChangesError = false;
}

FailingAllocation::FailingAllocation(std::size_t number) noexcept
    : FailingAllocation(number, kAnySize) {}

FailingAllocation::FailingAllocation(std::size_t number, std::size_t size) noexcept {
    failingSize = size;
    allocationsUntilFailure = number;
    failingThread = ::GetCurrentThreadId();
}

FailingAllocation::~FailingAllocation() {
    failingThread = 0;
}

bool FailingAllocation::HasFailed() const noexcept {
    return allocationsUntilFailure == 0;
}

}  // namespace guarded_heap
