// Many clients that come and go at once.

#include <cstdint>

#include <gtest/gtest.h>
#include <windows.h>

#include "in_process_service.h"
#include "protocol/message.h"
#include "windows/unique_handle.h"

namespace {

using ClientStormTest = InProcessService;

/// Clients on a thread of their own, one after the other: each takes its notification and one
/// answer and leaves. Plain calls of Windows only: nothing here allocates.
class ClientThread {
public:
    explicit ClientThread(int clients) : count(clients) {
        thread.reset(::CreateThread(nullptr, 0, Run, this, 0, nullptr));
    }
    ~ClientThread() { ::WaitForSingleObject(thread.get(), INFINITE); }

    ClientThread(const ClientThread&) = delete;
    ClientThread& operator=(const ClientThread&) = delete;

    /// Clients that were served as they should be; meaningful when the thread has ended.
    int Served() const noexcept { return served; }
    /// The first thing that went wrong, or null.
    const char* Problem() const noexcept { return problem; }
    bool HasEnded() const noexcept {
        return ::WaitForSingleObject(thread.get(), 0) == WAIT_OBJECT_0;
    }

private:
    static DWORD WINAPI Run(void* self) {
        static_cast<ClientThread*>(self)->ServeAll();
        return 0;
    }

    void ServeAll() {
        for (int index = 0; index < count && problem == nullptr; ++index)
            problem = BeServed();
    }

    static bool ReadAll(HANDLE pipe, void* to, DWORD size) {
        DWORD done = 0;
        for (DWORD at = 0; at < size; at += done) {
            if (!::ReadFile(pipe, static_cast<char*>(to) + at, size - at, &done, nullptr))
                return false;
        }
        return true;
    }

    const char* BeServed() {
        UniqueHandle pipe;
        while (!(pipe = OwnFile(::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0,
                                              nullptr, OPEN_EXISTING, 0, nullptr)))) {
            if (::GetLastError() != ERROR_PIPE_BUSY)
                return "connect failed";
            ::WaitNamedPipeW(kCameraPipeName, 20000);
        }
        MessageHeader header{};
        if (!ReadAll(pipe.get(), &header, sizeof(header)) || header.messageType != kCameraAttached)
            return "no notification";
        const struct {
            MessageHeader header{kTransferIn, 4711, 1, 16};
            std::uint8_t command[16] = {0x08, 0, 0, 0, 1};
        } request;
        DWORD done = 0;
        char data[512];
        if (!::WriteFile(pipe.get(), &request, sizeof(request), &done, nullptr))
            return "request not written";
        if (!ReadAll(pipe.get(), &header, sizeof(header)) || header.requestId != 4711 ||
            header.messageType != kTransferSucceeded || header.bodyLength != sizeof(data) ||
            !ReadAll(pipe.get(), data, sizeof(data)))
            return "no answer";
        ++served;
        return nullptr;
    }

    int count;
    int served = 0;
    const char* problem = nullptr;
    UniqueHandle thread;
};

TEST_F(ClientStormTest, HundredsOfClientsThatComeAndGoInParallelAreAllServed) {
    Plug();
    StartServer();
    auto steady = Connect();
    constexpr int kThreads = 4;
    constexpr int kClients = 75;
    {
        ClientThread threads[kThreads] = {ClientThread(kClients), ClientThread(kClients),
                                          ClientThread(kClients), ClientThread(kClients)};
        std::uint32_t sent = 0;
        port.DispatchUntil("the end of the storm", [&] {
            // Meanwhile another client transfers all the time.
            if (steady->Messages().size() == sent + 1)
                steady->Write(MessageBytes(kTransferIn, ++sent, kFirstCamera, Read6(0, 1)));
            return Shutdowns() == kThreads * kClients;
        });
        for (const ClientThread& thread : threads) {
            port.DispatchUntil("a thread's end", [&] { return thread.HasEnded(); });
            EXPECT_EQ(thread.Problem(), nullptr) << thread.Problem();
            EXPECT_EQ(thread.Served(), kClients);
        }
        EXPECT_GT(sent, 10u);
    }
    ExpectServing();
}

}  // namespace
