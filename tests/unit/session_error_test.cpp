// Errors of a session's reads and writes: those that end the run, and those that end the session.

#include <span>
#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <windows.h>

#include "call_log.h"
#include "import_hook.h"
#include "session_fixture.h"
#include "windows_error.h"

namespace {

/// As Windows says it for a pipe; not one of the errors of a client that has hung up.
constexpr DWORD kOtherError = ERROR_NETNAME_DELETED;

/// The next packet of the service's own pipes ends with this error.
class FailingPacket {
public:
    explicit FailingPacket(DWORD code)
        : error(code),
          dequeue([this](HANDLE port, DWORD* bytes, ULONG_PTR* key, OVERLAPPED** overlapped,
                         DWORD wait) {
              const BOOL result = decltype(dequeue)::Original(port, bytes, key, overlapped, wait);
              // The client of the test has its packets on the same port, under the key 0.
              if (*key == 0 || error == 0)
                  return result;
              ::SetLastError(std::exchange(error, 0));
              return FALSE;
          }) {}

private:
    DWORD error;
    HookedImport<&__imp_GetQueuedCompletionStatus> dequeue;
};

class SessionErrorTest : public SessionTest {
protected:
    void SetUp() override {
        SessionTest::SetUp();
        Start();
        port.DispatchQueued();
        output.Clear();
    }

    /// Dispatches until a WindowsException comes, whose text starts so, and the client is still
    /// the main communicator: nothing was made of it but the exception.
    void ExpectError(const std::string& start) {
        EXPECT_TRUE(StartsWith(
            WindowsErrorOf([&] { port.DispatchUntil("the error", [] { return false; }); }), start));
        EXPECT_EQ(Shutdowns(), 0u);
        EXPECT_TRUE(server->GetMainCommunicator());
        EXPECT_EQ(output.Error(), "");
    }

    /// The client's header, and what it makes the service do.
    void SendHeaderOf(const Bytes& message) {
        WriteAndDispatch(*client, std::span(message).first(sizeof(MessageHeader)));
    }
};

TEST_F(SessionErrorTest, HeaderReadThatEndsWithAnotherErrorIsThrownWithoutAText) {
    const FailingPacket failing(kOtherError);
    client->Write(MessageBytes(7, 1, 0, {}));
    ExpectError("GetLastError() = 0x40 (");
}

TEST_F(SessionErrorTest, BodyReadThatEndsWithAnotherErrorIsThrown) {
    const Bytes message = MessageBytes(7, 1, 0, Pattern(100));
    SendHeaderOf(message);
    const FailingPacket failing(kOtherError);
    client->Write(std::span(message).subspan(sizeof(MessageHeader)));
    ExpectError("ReadBodyComplete failed.  GetLastError() = 0x40 (");
}

TEST_F(SessionErrorTest, WriteThatEndsWithAnotherErrorIsThrown) {
    const Bytes message = MessageBytes(kTransferIn, 1, kFirstCamera, Read6(0, 1));
    bus.SetBehaviour(camera, Holds());
    client->Write(message);
    port.DispatchUntil("the transfer", [&] { return bus.Counters(camera).pending == 1; });
    bus.ReleaseAll(camera);
    port.WaitForPackets(1);
    port.DispatchOne();  // writes the answer's header
    const FailingPacket failing(kOtherError);
    ExpectError("Write failed.  GetLastError() = 0x40 (");
}

TEST_F(SessionErrorTest, BodyReadThatFailsAtOnceIsThrownWithoutATextAlsoForABrokenPipe) {
    const Bytes message = MessageBytes(7, 1, 0, Pattern(100));
    const struct {
        DWORD size;  // of the read that fails: the first, or one that continues
        DWORD error;
        const char* text;
    } cases[] = {
        {100, kOtherError, "GetLastError() = 0x40 ("},
        {100, ERROR_BROKEN_PIPE, "GetLastError() = 0x6d ("},
        {140, kOtherError, "GetLastError() = 0x40 ("},
        {140, ERROR_BROKEN_PIPE, "GetLastError() = 0x6d ("},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE("read of " + std::to_string(one.size) + ", error " +
                     std::to_string(one.error));
        StopServer();
        StartServer();
        client = ConnectAndAsk();
        port.DispatchQueued();
        output.Clear();
        using Read = HookedImport<&__imp_ReadFile>;
        const Read read(
            [&](HANDLE file, void* to, DWORD size, DWORD* done, OVERLAPPED* overlapped) {
                if (size != one.size)
                    return Read::Original(file, to, size, done, overlapped);
                ::SetLastError(one.error);
                return FALSE;
            });
        client->Write(std::span(message).first(sizeof(MessageHeader) + 40));
        ExpectError(one.text);
    }
}

TEST_F(SessionErrorTest, WriteThatFailsAtOnceIsThrownWithoutAText) {
    client->Write(MessageBytes(kTransferIn, 1, 0, {}));
    const HookedImport<&__imp_WriteFile> write([](HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) {
        ::SetLastError(kOtherError);
        return FALSE;
    });
    ExpectError("GetLastError() = 0x40 (");
}

TEST_F(SessionErrorTest, WriteThatFindsThePipeBrokenRemovesTheClient) {
    client->Write(MessageBytes(kTransferIn, 1, 0, {}));
    const HookedImport<&__imp_WriteFile> write([](HANDLE, const void*, DWORD, DWORD*, OVERLAPPED*) {
        ::SetLastError(ERROR_BROKEN_PIPE);
        return FALSE;
    });
    WaitForShutdowns(1);
    EXPECT_FALSE(server->GetMainCommunicator());
    EXPECT_EQ(output.Error(), "");
}

}  // namespace
