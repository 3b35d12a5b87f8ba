#include "service/dispatcher.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/io_operation.h"
#include "device/windows_exception.h"
#include "guarded_heap.h"
#include "output_capture.h"
#include "windows/unique_handle.h"

namespace {

class DispatcherTest : public ::testing::Test {
protected:
    DispatcherTest()
        : port(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1)),
          operationsBefore(guarded_heap::LiveBlocks(sizeof(IoOperation))) {}

    void Post(IoOperation* operation, DWORD bytes = 0, ULONG_PTR key = 0) {
        ASSERT_TRUE(::PostQueuedCompletionStatus(port.get(), bytes, key, &operation->overlapped));
    }

    void PostQuit() {
        auto* const quit = new IoOperation{IoCallback()};
        quit->status = IoOperation::kQuit;
        Post(quit);
    }

    /// A pipe whose server end is on the port under the key, and its client end.
    void MakePipe(ULONG_PTR key) {
        const std::wstring name =
            LR"(\\.\pipe\orvik_dispatcher_test_)" + std::to_wstring(::GetCurrentProcessId());
        server = OwnFile(::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                            PIPE_TYPE_BYTE, 1, 100, 100, 0, nullptr));
        ASSERT_TRUE(server);
        client = OwnFile(::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                       OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(client);
        ASSERT_EQ(::CreateIoCompletionPort(server.get(), port.get(), key, 0), port.get());
    }

    void StartRead(IoOperation* operation) {
        ASSERT_FALSE(
            ::ReadFile(server.get(), buffer, sizeof(buffer), nullptr, &operation->overlapped));
        ASSERT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_IO_PENDING));
    }

    std::size_t Operations() const {
        return guarded_heap::LiveBlocks(sizeof(IoOperation)) - operationsBefore;
    }

    UniqueHandle port;
    UniqueHandle server;
    UniqueHandle client;
    char buffer[16] = "";
    std::size_t operationsBefore;
    OutputCapture output;
};

TEST_F(DispatcherTest, SuccessGoesToTheCallbackWithBytesAndKey) {
    int calls = 0;
    IoOperation operation{[&calls](IoOperation*) { ++calls; }};
    Post(&operation, 12, 0x123456789A);
    EXPECT_TRUE(DispatchCompletion(port.get()));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(operation.status, 1u);
    EXPECT_EQ(operation.bytesTransferred, 12u);
    EXPECT_EQ(operation.completionKey, 0x123456789Au);
    EXPECT_EQ(output.Out() + output.Error(), "");
}

TEST_F(DispatcherTest, ReadThatCompletesGoesToItsCallback) {
    MakePipe(77);
    int calls = 0;
    IoOperation operation{[&calls](IoOperation*) { ++calls; }};
    StartRead(&operation);
    DWORD written = 0;
    ASSERT_TRUE(::WriteFile(client.get(), "abc", 3, &written, nullptr));
    EXPECT_TRUE(DispatchCompletion(port.get()));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(operation.bytesTransferred, 3u);
    EXPECT_EQ(operation.completionKey, 77u);
    EXPECT_EQ(std::string(buffer), "abc");
}

TEST_F(DispatcherTest, FailureGoesToTheCallbackAndTwoLinesSaySo) {
    MakePipe(0x1F4);
    int calls = 0;
    DWORD lastError = 0;
    IoOperation operation{[&](IoOperation*) {
        lastError = ::GetLastError();  // what handlers throw from
        ++calls;
    }};
    StartRead(&operation);
    client.reset();
    EXPECT_TRUE(DispatchCompletion(port.get()));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(operation.status, 2u);
    EXPECT_EQ(operation.errorCode, static_cast<DWORD>(ERROR_BROKEN_PIPE));
    EXPECT_EQ(operation.completionKey, 0u);
    EXPECT_EQ(lastError, static_cast<DWORD>(ERROR_BROKEN_PIPE));
    EXPECT_EQ(output.Out(),
              "GetQueuedCompletionStatus returned FALSE: 109\n"
              "CompletionKey: 0x500\n")
        << "the key is decimal";
    EXPECT_EQ(output.Error(), "");
}

TEST_F(DispatcherTest, AbortedOperationIsFreedWithItsBlockAndWithoutItsCallback) {
    ORVIK_NEEDS_GUARDED_HEAP();
    MakePipe(9);
    const std::size_t blocks = guarded_heap::LiveBlocks(4321);
    int calls = 0;
    auto* const operation = new IoOperation{[&calls](IoOperation*) { ++calls; }};
    operation->transferBuffer = std::malloc(4321);
    StartRead(operation);
    ASSERT_TRUE(::CancelIoEx(server.get(), nullptr));
    EXPECT_TRUE(DispatchCompletion(port.get()));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(Operations(), 0u);
    EXPECT_EQ(guarded_heap::LiveBlocks(4321), blocks);
    EXPECT_EQ(output.Out(),
              "GetQueuedCompletionStatus returned FALSE: 995\n"
              "CompletionKey: 0x9\n");
}

TEST_F(DispatcherTest, FailedWaitThrowsAfterItsLine) {
    const HANDLE gone = port.release();
    ::CloseHandle(gone);
    try {
        DispatchCompletion(gone);
        FAIL() << "no exception";
    } catch (const WindowsException& exception) {
        // Without a text of its own, and with the wait's error.
        EXPECT_EQ(std::string(exception.what()).find("GetLastError() = 0x6 ("), 0u)
            << exception.what();
    }
    EXPECT_EQ(output.Out(), "GetQueuedCompletionStatus returned FALSE: 6\n");
}

TEST_F(DispatcherTest, QuitEndsTheLoopIsFreedAndLeavesTheRestOnThePort) {
    int calls = 0;
    IoOperation before{[&calls](IoOperation*) { ++calls; }};
    IoOperation behind{[&calls](IoOperation*) { ++calls; }};
    Post(&before);
    PostQuit();
    Post(&behind);
    RunDispatcher(port.get());
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(before.status, 1u);
    EXPECT_EQ(behind.status, 0u);
    EXPECT_EQ(Operations(), 0u) << "the quit operation is left";
    EXPECT_TRUE(DispatchCompletion(port.get()));
    EXPECT_EQ(behind.status, 1u);
}

TEST_F(DispatcherTest, ExceptionOfAHandlerLeavesTheLoop) {
    IoOperation operation{[](IoOperation*) { throw std::runtime_error("from the handler"); }};
    Post(&operation);
    PostQuit();
    EXPECT_THROW(RunDispatcher(port.get()), std::runtime_error);
    EXPECT_EQ(operation.status, 1u);
    RunDispatcher(port.get());
}

TEST_F(DispatcherTest, RefusedPacketOnlyWritesALine) {
    IoOperation operation{[](IoOperation*) { FAIL() << "called"; }};
    operation.status = IoOperation::kComplete;
    Post(&operation);
    EXPECT_TRUE(DispatchCompletion(port.get()));
    EXPECT_EQ(output.Error(),
              "IoOperation::Complete expected status == kPending, instead status = 1\n");
}

TEST_F(DispatcherTest, PacketsAreTakenInTheOrderInWhichTheyCame) {
    std::vector<int> order;
    std::vector<std::unique_ptr<IoOperation>> operations;
    for (int index = 0; index < 20; ++index) {
        operations.push_back(std::make_unique<IoOperation>(
            [&order, index](IoOperation*) { order.push_back(index); }));
        Post(operations.back().get());
    }
    PostQuit();
    RunDispatcher(port.get());
    ASSERT_EQ(order.size(), 20u);
    for (int index = 0; index < 20; ++index)
        EXPECT_EQ(order[static_cast<std::size_t>(index)], index);
}

}  // namespace
