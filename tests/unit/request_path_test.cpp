// The system calls and allocations of one request: the path has no others.

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "call_log.h"
#include "guarded_heap.h"
#include "session/server_client.h"
#include "session_fixture.h"

namespace {

/// A request's calls and allocations, from its header's packet to the packet of the last write.
class RequestPathTest : public SessionTest {
protected:
    void TearDown() override {
        calls = std::string();
        calls.shrink_to_fit();
        allocations = std::vector<std::size_t>();
        SessionTest::TearDown();
    }

    /// Starts, and replaces the client by one that reads nothing.
    void StartQuiet() {
        Start();
        Leave(client);
        client = Connect(PipeClient::Reading::kNever);
        port.DispatchQueued();
    }

    /// Serves one request of a client that does nothing meanwhile but have written it.
    void Serve(const Bytes& message, std::size_t packets) {
        client->Write(message);
        CallLog log;
        std::size_t taken = 0;
        guarded_heap::AllocationRecord record;
        while (taken < packets) {
            port.DispatchOne();
            taken = OutputCapture::Count(log.text, "Q");
        }
        allocations = record.Stop();
        calls = log.text;
    }

    /// Sizes of the allocations but those of the write queue's own nodes, which come every few
    /// dozen entries.
    std::vector<std::size_t> AllocationsButQueueNodes() const {
        std::vector<std::size_t> sizes = allocations;
        std::erase(sizes, 512);
        std::sort(sizes.begin(), sizes.end());
        return sizes;
    }

    std::string calls;
    std::vector<std::size_t> allocations;
};

TEST_F(RequestPathTest, TransferInTakesTheAgreedCallsAndAllocations) {
    ORVIK_NEEDS_GUARDED_HEAP();
    StartQuiet();
    const Bytes message = MessageBytes(3, 77, kFirstCamera, Read6(0, 1) + Pattern(5));
    Serve(message, 5);  // opens the camera
    for (int round = 0; round < 3; ++round) {
        Serve(message, 5);
        EXPECT_EQ(calls, "Q R21 Q D65601 R16 Q W16 Q W512 Q");
        allocations.erase(std::find(allocations.begin(), allocations.end(), 512));  // the data
        EXPECT_EQ(AllocationsButQueueNodes(),
                  (std::vector<std::size_t>{16, 21, sizeof(IoOperation), 65601}));
    }
}

TEST_F(RequestPathTest, TransferOutTakesTheAgreedCallsAndAllocations) {
    ORVIK_NEEDS_GUARDED_HEAP();
    StartQuiet();
    const Bytes message = MessageBytes(2, 78, kFirstCamera, Write6(0, Pattern(1024)));
    Serve(message, 4);
    for (int round = 0; round < 3; ++round) {
        Serve(message, 4);
        EXPECT_EQ(calls, "Q R1040 Q D1089 R16 Q W16 Q");
        EXPECT_EQ(AllocationsButQueueNodes(),
                  (std::vector<std::size_t>{16, sizeof(IoOperation), 1040, 1089}));
    }
}

TEST_F(RequestPathTest, RefusedRequestTakesTheAgreedCallsAndAllocations) {
    ORVIK_NEEDS_GUARDED_HEAP();
    StartQuiet();
    Serve(MessageBytes(4, 79, 0, {}), 2);
    for (int round = 0; round < 3; ++round) {
        Serve(MessageBytes(4, 79, 0, {}), 2);
        EXPECT_EQ(calls, "Q W16 R16 Q");
        EXPECT_EQ(AllocationsButQueueNodes(), (std::vector<std::size_t>{16}));
    }
}

}  // namespace
