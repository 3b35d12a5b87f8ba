// The heap of the in-process tests notices what it is there for. Each error ends the program, so
// each is made in a child process.
#include "guarded_heap.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

namespace {

// Through these the compiler sees no allocation function, so it neither warns of what the tests do
// wrong on purpose nor leaves it out.
void* (*volatile Allocate)(std::size_t) = std::malloc;
void* (*volatile Reallocate)(void*, std::size_t) = std::realloc;
void (*volatile FreeBlock)(void*) = std::free;
void* (*volatile New)(std::size_t) = ::operator new;

volatile std::uintptr_t volatileZero = 0;

volatile char* Bytes(std::size_t size) {
    return static_cast<volatile char*>(Allocate(size));
}

void Free(volatile char* block) {
    FreeBlock(const_cast<char*>(block));
}

const ::testing::ExitedWithCode kStopped(guarded_heap::kErrorExitCode);

TEST(GuardedHeap, ReadAfterFreeStopsTheProgram) {
    EXPECT_EXIT(
        {
            volatile char* const block = Bytes(10);
            Free(block);
            static_cast<void>(*block);
        },
        kStopped, "access to a freed block");
}

TEST(GuardedHeap, WriteAfterFreeStopsTheProgramAlsoAfterManyOtherBlocks) {
    EXPECT_EXIT(
        {
            volatile char* const block = Bytes(10);
            Free(block);
            for (int count = 0; count < 10000; ++count)
                Free(Bytes(10));
            *block = 2;
        },
        kStopped, "access to a freed block");
}

TEST(GuardedHeap, UseAfterDeleteStopsTheProgram) {
    EXPECT_EXIT(
        {
            auto text = std::make_unique<std::string>("a text that is too long to be kept inside");
            const volatile char* const bytes = text->data();
            text.reset();
            static_cast<void>(*bytes);
        },
        kStopped, "access to a freed block");
}

TEST(GuardedHeap, SecondFreeStopsTheProgram) {
    EXPECT_EXIT(
        {
            volatile char* const block = Bytes(100);
            Free(block);
            Free(block);
        },
        kStopped, "freed already");
}

TEST(GuardedHeap, WriteBehindAnAlignedBlockStopsTheProgramAtOnce) {
    EXPECT_EXIT(Bytes(65536)[65536] = 1, kStopped, "beyond the end of a block");
}

TEST(GuardedHeap, WriteIntoTheSlackBehindABlockStopsTheProgramWhenItIsFreed) {
    EXPECT_EXIT(
        {
            volatile char* const block = Bytes(65601);
            block[65601] = 1;
            Free(block);
        },
        kStopped, "written beyond its end");
}

TEST(GuardedHeap, WriteBeforeABlockStopsTheProgramWhenItIsFreed) {
    EXPECT_EXIT(
        {
            volatile char* const block = Bytes(64);
            block[-1] = 1;
            Free(block);
        },
        kStopped, "before its start");
}

TEST(GuardedHeap, FreeOfTheMiddleOfABlockStopsTheProgram) {
    EXPECT_EXIT(Free(Bytes(64) + 32), kStopped, "no block");
}

TEST(GuardedHeap, CrashThatHasNothingToDoWithBlocksIsAnErrorTooAndNotExitCodeZero) {
    EXPECT_EXIT(*reinterpret_cast<volatile char*>(volatileZero) = 1, kStopped,
                "unhandled exception");
    EXPECT_EXIT(__builtin_trap(), kStopped, "unhandled exception");
}

TEST(GuardedHeap, SystemCallIntoAFreedBlockDoesNotSucceed) {
    HANDLE readEnd = nullptr;
    HANDLE writeEnd = nullptr;
    ASSERT_TRUE(::CreatePipe(&readEnd, &writeEnd, nullptr, 0));
    DWORD moved = 0;
    ASSERT_TRUE(::WriteFile(writeEnd, "text", 4, &moved, nullptr));
    void* const block = Allocate(4);
    FreeBlock(block);
    EXPECT_FALSE(::ReadFile(readEnd, block, 4, &moved, nullptr));
    ::CloseHandle(readEnd);
    ::CloseHandle(writeEnd);
}

TEST(GuardedHeap, CountsLiveBlocksByTheirSize) {
    const std::size_t before = guarded_heap::LiveBlocks();
    const std::size_t beforeOfSize = guarded_heap::LiveBlocks(12345);
    void* const first = Allocate(12345);
    auto second = std::make_unique<std::array<char, 12345>>();
    EXPECT_EQ(guarded_heap::LiveBlocks(), before + 2);
    EXPECT_EQ(guarded_heap::LiveBlocks(12345), beforeOfSize + 2);
    FreeBlock(first);
    second.reset();
    EXPECT_EQ(guarded_heap::LiveBlocks(), before);
    EXPECT_EQ(guarded_heap::LiveBlocks(12345), beforeOfSize);
}

TEST(GuardedHeap, RecordsTheSizesThatOneThreadAllocates) {
    guarded_heap::AllocationRecord record;
    void* const first = Allocate(17);
    void* const second = Reallocate(first, 99);
    FreeBlock(second);
    const std::vector<std::size_t> sizes = record.Stop();
    EXPECT_EQ(sizes, (std::vector<std::size_t>{17, 99}));
}

TEST(GuardedHeap, FailsTheAllocationOfTheGivenNumberAndNoOther) {
    const guarded_heap::FailingAllocation failing(3);
    void* const first = Allocate(10);
    void* const second = Allocate(20);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    EXPECT_FALSE(failing.HasFailed());
    EXPECT_EQ(Allocate(30), nullptr);
    EXPECT_TRUE(failing.HasFailed());
    void* const fourth = Allocate(40);
    EXPECT_NE(fourth, nullptr);
    for (void* const block : {first, second, fourth})
        FreeBlock(block);
}

TEST(GuardedHeap, FailsTheNextAllocationOfTheGivenSizeAsOperatorNewDoes) {
    const auto failing = guarded_heap::FailingAllocation::OfSize(54321);
    FreeBlock(Allocate(54320));
    EXPECT_FALSE(failing.HasFailed());
    EXPECT_THROW(New(54321), std::bad_alloc);
    EXPECT_TRUE(failing.HasFailed());
    ::operator delete(New(54321));
}

TEST(GuardedHeap, FailsNoAllocationOfAnotherThreadAndNoneAfterItsEnd) {
    {
        const auto failing = guarded_heap::FailingAllocation::OfSize(54321);
        const HANDLE thread = ::CreateThread(
            nullptr, 0,
            [](void*) -> DWORD {
                void* const block = Allocate(54321);
                FreeBlock(block);
                return block != nullptr ? 1 : 0;
            },
            nullptr, 0, nullptr);
        ::WaitForSingleObject(thread, INFINITE);
        DWORD succeeded = 0;
        ::GetExitCodeThread(thread, &succeeded);
        ::CloseHandle(thread);
        EXPECT_EQ(succeeded, 1u);
        EXPECT_FALSE(failing.HasFailed());
    }
    void* const block = Allocate(54321);
    EXPECT_NE(block, nullptr);
    FreeBlock(block);
}

TEST(GuardedHeap, FreeChangesTheLastErrorIfItIsToldTo) {
    const auto errorAfterFree = [] {
        void* const block = Allocate(10);
        ::SetLastError(5);
        FreeBlock(block);
        return ::GetLastError();
    };
    EXPECT_EQ(errorAfterFree(), 5u);
    {
        const guarded_heap::ErrorChangingFree changing;
        EXPECT_EQ(errorAfterFree(), guarded_heap::ErrorChangingFree::kLastError);
    }
    EXPECT_EQ(errorAfterFree(), 5u);
}

TEST(GuardedHeap, KeepsContentsAndAlignment) {
    for (const std::size_t size : {0u, 1u, 15u, 16u, 17u, 4079u, 4080u, 4081u, 4096u, 70001u}) {
        SCOPED_TRACE(size);
        auto* const block = static_cast<unsigned char*>(std::malloc(size));
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0u);
        std::memset(block, 0x5A, size);
        auto* const larger = static_cast<unsigned char*>(std::realloc(block, size + 100));
        ASSERT_NE(larger, nullptr);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(larger), size), std::string(size, 0x5A));
        std::free(larger);
    }
    auto* const zeros = static_cast<unsigned char*>(std::calloc(1000, 3));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(zeros), 3000), std::string(3000, '\0'));
    std::free(zeros);
    std::free(nullptr);
    // From the C runtime's own heap, whatever this one is.
    std::free(::_strdup("text"));
}

}  // namespace
