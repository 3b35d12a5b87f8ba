// The functions of guarded_heap.h where there is no guarded heap. Only the blocks of operator new
// are counted, and nothing else is done.
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "guarded_heap.h"

namespace {

constexpr std::size_t kSizeBefore = 16;  // room in front of each block, which keeps its alignment

std::atomic<std::size_t> all = 0;
std::array<std::atomic<std::size_t>, guarded_heap::kLargestCounted + 1> bySize{};

}  // namespace

void* operator new(std::size_t size) {
    auto* const memory = static_cast<std::byte*>(std::malloc(kSizeBefore + size));
    if (memory == nullptr)
        throw std::bad_alloc();
    std::memcpy(memory, &size, sizeof(size));
    ++all;
    if (size < bySize.size())
        ++bySize[size];
    return memory + kSizeBefore;
}

void operator delete(void* block) noexcept {
    if (block == nullptr)
        return;
    std::byte* const memory = static_cast<std::byte*>(block) - kSizeBefore;
    std::size_t size = 0;
    std::memcpy(&size, memory, sizeof(size));
    --all;
    if (size < bySize.size())
        --bySize[size];
    std::free(memory);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    operator delete(block);
}

namespace guarded_heap {

bool IsGuarded() noexcept {
    return false;
}

std::size_t LiveBlocks() noexcept {
    return all;
}

std::size_t LiveBlocks(std::size_t size) noexcept {
    return bySize[size];
}

void Snapshot::Take() noexcept {
    all = LiveBlocks();
    bySize = {};
}

std::string Snapshot::Difference() const {
    return {};
}

AllocationRecord::AllocationRecord() noexcept = default;
AllocationRecord::~AllocationRecord() {
    // There is no record to end.
}

std::vector<std::size_t> AllocationRecord::Stop() {
    return {};
}

ErrorChangingFree::ErrorChangingFree() noexcept = default;
ErrorChangingFree::~ErrorChangingFree() {
    // free() was not changed.
}

FailingAllocation::FailingAllocation(std::size_t /*number*/) noexcept {}
FailingAllocation::FailingAllocation(std::size_t /*number*/, std::size_t /*size*/) noexcept {}
FailingAllocation::~FailingAllocation() {
    // No allocation was made to fail.
}

bool FailingAllocation::HasFailed() const noexcept {
    return false;
}

}  // namespace guarded_heap
