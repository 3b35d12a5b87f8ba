#include "device/io_operation.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <gtest/gtest.h>
#include <windows.h>
#include <boost/smart_ptr/make_shared.hpp>

#include "guarded_heap.h"
#include "output_capture.h"

namespace {

/// An operation that counts the calls of its callback.
struct Counted {
    int calls = 0;
    IoOperation* last = nullptr;
    IoOperation operation{[this](IoOperation* done) {
        ++calls;
        last = done;
    }};
};

TEST(IoOperation, NewOneIsPendingAndEmpty) {
    const IoOperation operation{IoCallback()};
    EXPECT_EQ(operation.status, 0u);
    EXPECT_EQ(operation.completionKey, 0u);
    EXPECT_EQ(operation.bytesTransferred, 0u);
    EXPECT_EQ(operation.errorCode, 0u);
    EXPECT_EQ(operation.transferBuffer, nullptr);
    const OVERLAPPED zero{};
    EXPECT_EQ(std::memcmp(&operation.overlapped, &zero, sizeof(zero)), 0);
    EXPECT_TRUE(operation.callback.empty());
}

TEST(IoOperation, StatusValuesAreThoseOfTheLogLines) {
    EXPECT_EQ(IoOperation::kPending, 0u);
    EXPECT_EQ(IoOperation::kComplete, 1u);
    EXPECT_EQ(IoOperation::kError, 2u);
    EXPECT_EQ(IoOperation::kQuit, 3u);
}

TEST(IoOperation, IsFoundFromItsOverlapped) {
    IoOperation operation{IoCallback()};
    EXPECT_EQ(IoOperation::FromOverlapped(&operation.overlapped), &operation);
}

TEST(IoOperation, CompleteRecordsThePacketAndCallsOnce) {
    Counted counted;
    counted.operation.Complete(10, 7);
    EXPECT_EQ(counted.operation.status, 1u);
    EXPECT_EQ(counted.operation.bytesTransferred, 10u);
    EXPECT_EQ(counted.operation.completionKey, 7u);
    EXPECT_EQ(counted.calls, 1);
    EXPECT_EQ(counted.last, &counted.operation);
}

TEST(IoOperation, SecondCompleteOnlyWritesALine) {
    Counted counted;
    counted.operation.Complete(10, 7);
    OutputCapture output;
    counted.operation.Complete(20, 8);
    EXPECT_EQ(output.Error(),
              "IoOperation::Complete expected status == kPending, instead status = 1\n");
    EXPECT_EQ(output.Out(), "");
    EXPECT_EQ(counted.calls, 1);
    EXPECT_EQ(counted.operation.bytesTransferred, 10u);
    EXPECT_EQ(counted.operation.completionKey, 7u);
}

TEST(IoOperation, ErrorRecordsTheCodeAndLeavesTheRest) {
    Counted counted;
    counted.operation.bytesTransferred = 5;
    counted.operation.completionKey = 6;
    counted.operation.Error(31);
    EXPECT_EQ(counted.operation.status, 2u);
    EXPECT_EQ(counted.operation.errorCode, 31u);
    EXPECT_EQ(counted.operation.bytesTransferred, 5u);
    EXPECT_EQ(counted.operation.completionKey, 6u);
    EXPECT_EQ(counted.calls, 1);
    EXPECT_EQ(counted.last, &counted.operation);
}

TEST(IoOperation, ErrorAfterCompleteOnlyWritesALine) {
    Counted counted;
    counted.operation.Complete(10, 7);
    OutputCapture output;
    counted.operation.Error(31);
    EXPECT_EQ(output.Error(),
              "IoOperation::Error expected status == kPending, instead status = 1\n");
    EXPECT_EQ(counted.operation.status, 1u);
    EXPECT_EQ(counted.operation.errorCode, 0u);
    EXPECT_EQ(counted.calls, 1);
}

TEST(IoOperation, WrongStatusIsWrittenAsItIs) {
    Counted counted;
    OutputCapture output;
    counted.operation.Error(31);
    counted.operation.Complete(1, 1);
    counted.operation.status = IoOperation::kQuit;
    counted.operation.Error(32);
    EXPECT_EQ(output.Error(),
              "IoOperation::Complete expected status == kPending, instead status = 2\n"
              "IoOperation::Error expected status == kPending, instead status = 3\n");
    EXPECT_EQ(counted.calls, 1);
    EXPECT_EQ(counted.operation.errorCode, 31u);
}

TEST(IoOperation, ResetOfAPendingOneOnlyWritesALine) {
    Counted counted;
    counted.operation.completionKey = 3;
    OutputCapture output;
    counted.operation.Reset();
    EXPECT_EQ(output.Error(),
              "IoOperation::Reset expected status != kPending, instead status = 0\n");
    EXPECT_EQ(counted.operation.status, 0u);
    EXPECT_EQ(counted.operation.completionKey, 3u);
}

TEST(IoOperation, ResetAfterAnEndMakesItPendingAndKeepsTheBlock) {
    Counted counted;
    char block = 0;
    counted.operation.transferBuffer = &block;
    counted.operation.overlapped.Internal = 0x1234;
    OutputCapture output;
    counted.operation.Error(31);
    counted.operation.Reset();
    EXPECT_EQ(counted.operation.status, 0u);
    EXPECT_EQ(counted.operation.errorCode, 0u);
    EXPECT_EQ(counted.operation.transferBuffer, &block);
    EXPECT_EQ(counted.operation.overlapped.Internal, 0x1234u);
    counted.operation.Complete(10, 7);
    EXPECT_EQ(counted.calls, 2);
    counted.operation.Reset();
    EXPECT_EQ(counted.operation.bytesTransferred, 0u);
    EXPECT_EQ(counted.operation.completionKey, 0u);
    EXPECT_EQ(output.Error(), "");
}

TEST(IoOperation, EmptyCallbackThrowsAndTheEndStateStays) {
    IoOperation completed{IoCallback()};
    try {
        completed.Complete(10, 7);
        FAIL() << "no exception";
    } catch (const boost::bad_function_call& error) {
        EXPECT_STREQ(error.what(), "call to empty boost::function");
    }
    EXPECT_EQ(completed.status, 1u);
    EXPECT_EQ(completed.bytesTransferred, 10u);
    IoOperation failed{IoCallback()};
    EXPECT_THROW(failed.Error(5), boost::bad_function_call);
    EXPECT_EQ(failed.status, 2u);
    EXPECT_EQ(failed.errorCode, 5u);
}

TEST(IoOperation, ExceptionOfTheCallbackPassesOnAndTheEndStateStays) {
    IoOperation operation{[](IoOperation*) { throw std::runtime_error("from the handler"); }};
    EXPECT_THROW(operation.Complete(1, 2), std::runtime_error);
    EXPECT_EQ(operation.status, 1u);
}

TEST(IoOperation, CallbackMayDestroyTheOperation) {
    const auto share = boost::make_shared<int>(0);
    for (const bool fails : {false, true}) {
        auto* const operation = new IoOperation([share](IoOperation* done) {
            ++*share;
            delete done;  // and this callable with it
        });
        if (fails)
            operation->Error(5);
        else
            operation->Complete(1, 1);
    }
    EXPECT_EQ(*share, 2);
    EXPECT_EQ(share.use_count(), 1);
}

TEST(IoOperation, CallableOf24BytesTakesNoAllocation) {
    ORVIK_NEEDS_GUARDED_HEAP();
    struct Small {
        void* values[3];
        void operator()(IoOperation*) const {}
    };
    guarded_heap::AllocationRecord record;
    {
        IoOperation operation{Small{}};
        operation.Complete(1, 1);
    }
    EXPECT_TRUE(record.Stop().empty());
}

TEST(KeptOperation, IdleOneIsFreedByItsOwner) {
    ORVIK_NEEDS_GUARDED_HEAP();
    const std::size_t before = guarded_heap::LiveBlocks(sizeof(IoOperation));
    {
        const KeptOperation kept{IoCallback()};
        EXPECT_NE(kept.Get(), nullptr);
        EXPECT_FALSE(kept.IsIssued());
        EXPECT_EQ(guarded_heap::LiveBlocks(sizeof(IoOperation)), before + 1);
    }
    EXPECT_EQ(guarded_heap::LiveBlocks(sizeof(IoOperation)), before);
}

TEST(KeptOperation, IssuedOneIsLeftToItsPacketWhateverItsOverlappedSays) {
    int calls = 0;
    IoOperation* left = nullptr;
    {
        KeptOperation kept{[&calls](IoOperation* done) {
            ++calls;
            DiscardOperation(done);
        }};
        kept.SetIssued();
        left = kept.Get();
        left->overlapped.Internal = 0;  // its packet is queued, say
    }
    left->Complete(1, 1);
    EXPECT_EQ(calls, 1);
}

TEST(KeptOperation, OneIssuedWithoutResetIsNotLost) {
    int calls = 0;
    IoOperation* left = nullptr;
    OutputCapture output;
    {
        KeptOperation kept{[&calls](IoOperation* done) {
            if (++calls == 2)
                DiscardOperation(done);
        }};
        left = kept.Get();
        kept.SetIssued();
        left->Complete(5, 1);
        EXPECT_FALSE(kept.IsIssued());
        kept.SetIssued();  // in status kComplete, as after a header in pieces
    }
    left->Complete(11, 1);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(output.Error(), "");
}

TEST(KeptOperation, RefusedPacketEndsTheIssueToo) {
    KeptOperation kept{[](IoOperation*) {}};
    OutputCapture output;
    kept.SetIssued();
    kept.Get()->Complete(5, 1);
    kept.SetIssued();
    kept.Get()->Complete(11, 1);
    EXPECT_FALSE(kept.IsIssued());
    EXPECT_EQ(OutputCapture::Count(output.Error(), "IoOperation::Complete expected"), 1u);
}

TEST(KeptOperation, LearnsThatItsOperationIsGone) {
    KeptOperation kept{IoCallback()};
    kept.SetIssued();
    DiscardOperation(kept.Get());  // what the dispatcher does for a packet with error 995
    EXPECT_EQ(kept.Get(), nullptr);
    EXPECT_FALSE(kept.IsIssued());
}

TEST(DiscardOperation, FreesTheBlockThatTravelsWithIt) {
    ORVIK_NEEDS_GUARDED_HEAP();
    const std::size_t before = guarded_heap::LiveBlocks();
    auto* const operation = new IoOperation{IoCallback()};
    operation->transferBuffer = std::malloc(100);
    DiscardOperation(operation);
    DiscardOperation(new IoOperation{IoCallback()});
    EXPECT_EQ(guarded_heap::LiveBlocks(), before);
}

}  // namespace
