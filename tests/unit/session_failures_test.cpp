// A session whose memory fails, whose reads end oddly, or whose client never reads, and the order
// in which a session gives things back.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/device.h"
#include "device/windows_exception.h"
#include "guarded_heap.h"
#include "import_hook.h"
#include "in_process_service.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::CreateNamedPipeW) __imp_CreateNamedPipeW;
extern decltype(&::GetQueuedCompletionStatus) __imp_GetQueuedCompletionStatus;
extern decltype(&::ReadFile) __imp_ReadFile;
}

namespace {

constexpr char kProblem[] =
    "PROBLEM!!! ServerClient destructor with active overlapped structure.\n";

class SessionFailuresTest : public InProcessService {
protected:
    /// A server, and a client that has been told of every camera.
    void StartWithCameras(std::size_t cameras) {
        for (std::size_t index = 0; index < cameras; ++index)
            plugged.push_back(Plug());
        StartServer();
        client = ConnectAndAsk();
        port.DispatchQueued();
    }

    /// Dispatches until a handler throws an `Exception`; nothing else may have come of it.
    template <typename Exception>
    std::string ExpectThrown() {
        const std::size_t messages = client->Messages().size();
        std::string text;
        try {
            port.DispatchUntil("an exception", [] { return false; });
            ADD_FAILURE() << "nothing was thrown";
        } catch (const Exception& exception) {
            text = exception.what();
        }
        EXPECT_EQ(client->Messages().size(), messages) << "an answer was sent";
        EXPECT_EQ(Shutdowns(), 0u) << "the session was removed";
        EXPECT_TRUE(server->GetMainCommunicator());
        EXPECT_EQ(output.Error(), "");
        return text;
    }

    void TearDown() override {
        client.reset();
        plugged = std::vector<vcam::CameraId>();
        InProcessService::TearDown();
    }

    std::vector<vcam::CameraId> plugged;
    std::unique_ptr<PipeClient> client;
};

TEST_F(SessionFailuresTest, NoMemoryForABodyEndsTheRun) {
    ORVIK_NEEDS_GUARDED_HEAP();
    StartWithCameras(0);
    client->Write(MessageBytes(kTransferOut, 1, 0, Pattern(12345)));
    const auto failing = guarded_heap::FailingAllocation::OfSize(12345);
    // The client's own copy was made before.
    ExpectThrown<std::bad_alloc>();
    EXPECT_TRUE(failing.HasFailed());
}

TEST_F(SessionFailuresTest, NoMemoryForATransfersBlockEndsTheRunAndIsNoFailedTransfer) {
    ORVIK_NEEDS_GUARDED_HEAP();
    StartWithCameras(1);
    client->Write(RequestBytes(kTransferIn, 1, kFirstCamera, Read6(0, 1)));
    const auto failing = guarded_heap::FailingAllocation::OfSize(65601);
    ExpectThrown<std::bad_alloc>();
    EXPECT_TRUE(failing.HasFailed());
    ASSERT_TRUE(server->FindDevice(kFirstCamera)) << "the camera was given up";
    EXPECT_FALSE(server->FindDevice(kFirstCamera)->Removed());
}

TEST_F(SessionFailuresTest, ReadThatEndsWithPipeNotConnectedIsNoHangUp) {
    for (const bool ofABody : {false, true}) {
        SCOPED_TRACE(ofABody ? "body" : "header");
        StartWithCameras(0);
        const Bytes message = MessageBytes(7, 1, 0, Pattern(100));
        const std::span<const std::byte> bytes(message);
        if (ofABody) {
            client->Write(bytes.first(sizeof(MessageHeader)));
            port.DispatchUntil("the header", [&] { return client->PendingWrites() == 0; });
            port.DispatchQueued();
        }
        DWORD error = ERROR_PIPE_NOT_CONNECTED;  // 233
        using Dequeue = HookedImport<&__imp_GetQueuedCompletionStatus>;
        const Dequeue dequeue(
            [&](HANDLE from, DWORD* count, ULONG_PTR* key, OVERLAPPED** state, DWORD wait) {
                const BOOL result = Dequeue::Original(from, count, key, state, wait);
                if (*key == 0 || error == 0)  // a packet of the client, or not the next one
                    return result;
                ::SetLastError(std::exchange(error, 0));
                return FALSE;
            });
        client->Write(ofABody ? bytes.subspan(sizeof(MessageHeader)) : bytes);
        const std::string text = ExpectThrown<WindowsException>();
        EXPECT_EQ(text.find(ofABody ? "ReadBodyComplete failed.  GetLastError() = 0xe9 ("
                                    : "GetLastError() = 0xe9 ("),
                  0u)
            << text;
        client.reset();
        StopServer();
        output.Clear();
    }
}

TEST_F(SessionFailuresTest, HeaderReadThatFailsAtOnceEndsTheRunAlsoForABrokenPipe) {
    constexpr DWORD kErrors[] = {ERROR_BROKEN_PIPE, ERROR_PIPE_NOT_CONNECTED, ERROR_NO_DATA};
    for (const DWORD error : kErrors) {
        SCOPED_TRACE(error);
        StartWithCameras(0);
        using Read = HookedImport<&__imp_ReadFile>;
        bool failed = false;
        const Read read([&](HANDLE file, void* to, DWORD size, DWORD* done, OVERLAPPED* state) {
            if (size != sizeof(MessageHeader))
                return Read::Original(file, to, size, done, state);
            failed = true;
            ::SetLastError(error);
            return FALSE;
        });
        client->Write(MessageBytes(7, 1, 0));
        const std::string text = ExpectThrown<WindowsException>();
        EXPECT_TRUE(failed);
        EXPECT_EQ(text.find("DoRead ReadFile failed.  GetLastError() = 0x"), 0u) << text;
        client.reset();
        StopServer();
        output.Clear();
    }
}

/// The calls that open and close a session's pipe and its cameras, in their order.
class OpenAndClose {
public:
    OpenAndClose()
        : makePipe([this](const wchar_t* name, DWORD open, DWORD mode, DWORD most, DWORD out,
                          DWORD in, DWORD wait, SECURITY_ATTRIBUTES* security) {
              pipes.push_back(MakePipe::Original(name, open, mode, most, out, in, wait, security));
              return pipes.back();
          }),
          openFile([this](const wchar_t* path, DWORD access, DWORD share,
                          SECURITY_ATTRIBUTES* security, DWORD how, DWORD flags, HANDLE like) {
              const HANDLE file =
                  OpenFile::Original(path, access, share, security, how, flags, like);
              // The service's other look at a camera asks for no access.
              if (access != 0 && share == 0 && std::wstring(path).starts_with(LR"(\\?\)")) {
                  cameras.push_back(file);
                  calls += "open camera\n";
              }
              return file;
          }),
          close([this](HANDLE handle) {
              if (Erase(pipes, handle))
                  calls += "close pipe\n";
              else if (Erase(cameras, handle))
                  calls += "close camera\n";
              return Close::Original(handle);
          }) {}

    std::string calls;

private:
    static bool Erase(std::vector<HANDLE>& handles, HANDLE handle) {
        return std::erase(handles, handle) != 0;
    }

    using MakePipe = HookedImport<&__imp_CreateNamedPipeW>;
    using OpenFile = HookedImport<&__imp_CreateFileW>;
    using Close = HookedImport<&__imp_CloseHandle>;
    std::vector<HANDLE> pipes;
    std::vector<HANDLE> cameras;
    const MakePipe makePipe;
    const OpenFile openFile;
    const Close close;
};

TEST_F(SessionFailuresTest, OldCameraIsClosedBeforeTheNewOneIsOpened) {
    StartWithCameras(2);
    const OpenAndClose order;
    client->Write(RequestBytes(kTransferNoData, 1, 1, TestUnitReady()));
    WaitForMessage(*client, 4);
    client->Write(RequestBytes(kTransferNoData, 2, 2, TestUnitReady()));
    WaitForMessage(*client, 5);
    EXPECT_EQ(order.calls, "open camera\nclose camera\nopen camera\n");
}

TEST_F(SessionFailuresTest, PipeIsClosedBeforeTheCameraWhenASessionEnds) {
    const auto order = std::make_unique<OpenAndClose>();
    StartWithCameras(1);
    client->Write(RequestBytes(kTransferNoData, 1, kFirstCamera, TestUnitReady()));
    WaitForMessage(*client, 3);
    order->calls.clear();
    Leave(client);
    EXPECT_EQ(order->calls, "close pipe\nclose camera\n");
}

TEST_F(SessionFailuresTest, SessionThatEndsWithAReadAndAWritePendingSaysSoOnce) {
    StartWithCameras(1);
    client.reset();
    WaitForShutdowns(1);
    client = Connect(PipeClient::Reading::kNever);
    // More than the pipe holds, so a write stays pending beside the read of the next header.
    for (std::uint32_t index = 0; index < 3; ++index)
        client->Write(RequestBytes(kTransferIn, index, kFirstCamera, Read6(0, 128)));
    port.DispatchUntil("the transfers", [&] {
        return bus.Counters(plugged[0]).requests == 3 && client->PendingWrites() == 0;
    });
    port.DispatchQueued();
    server.reset();
    EXPECT_EQ(output.Error(), kProblem);
}

TEST_F(SessionFailuresTest, ClientThatNeverReadsIsKeptMoreThan64MebibytesOfAnswers) {
    StartWithCameras(1);
    const auto silent = Connect(PipeClient::Reading::kNever);
    constexpr std::uint32_t kCount = 1040;  // of 64 KiB each
    static_assert(std::uint64_t{kCount} * 65536 > std::uint64_t{64} << 20);
    const std::uint64_t before = bus.Counters(plugged[0]).requests;
    Bytes requests;
    for (std::uint32_t index = 0; index < kCount; ++index) {
        const Bytes one = RequestBytes(kTransferIn, index, kFirstCamera, Read6(0, 128));
        requests.insert(requests.end(), one.begin(), one.end());
    }
    silent->Write(requests);
    while (bus.Counters(plugged[0]).requests < before + kCount)
        port.DispatchQueued();
    RoundTrip(*client);
    // All of it comes once the client reads.
    const std::size_t expected =
        sizeof(MessageHeader) + kCount * (sizeof(MessageHeader) + kTransferInLength);
    silent->StartReading();
    for (std::size_t part = 1; part <= 8; ++part) {
        port.DispatchUntil("the answers", [&] {
            return silent->BytesReceived() >= expected / 8 * part || silent->HasEnded();
        });
    }
    port.DispatchUntil("the last answer",
                       [&] { return silent->BytesReceived() >= expected || silent->HasEnded(); });
    EXPECT_EQ(silent->BytesReceived(), expected);
    EXPECT_EQ(output.Error(), "");
}

}  // namespace
