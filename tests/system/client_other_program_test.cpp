// Another program beside the real service that serves an instance of the camera pipe.

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_system_test.h"
#include "orvik/client.h"
#include "protocol/message.h"
#include "running_service.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "windows/unique_handle.h"

namespace system_test {
namespace {

/// Serves one instance of the camera pipe after the other, and reads what its clients send. For the
/// service's clients, this process is another program.
class OtherProgram {
public:
    OtherProgram() : thread([this] { Run(); }) {}
    ~OtherProgram() {
        ::SetEvent(stop.get());
        thread.join();
    }

    OtherProgram(const OtherProgram&) = delete;
    OtherProgram& operator=(const OtherProgram&) = delete;

    int Clients() const { return clients; }
    int ClientsThatSent() const { return clientsThatSent; }

private:
    void Run() {
        while (true) {
            const UniqueHandle pipe = OwnFile(::CreateNamedPipeW(
                kCameraPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_BYTE,
                PIPE_UNLIMITED_INSTANCES, 65536, 65536, 0, nullptr));
            ASSERT_TRUE(pipe) << ::GetLastError();
            OVERLAPPED overlapped{};
            overlapped.hEvent = done.get();
            ::ResetEvent(done.get());
            const bool connects = ::ConnectNamedPipe(pipe.get(), &overlapped) != FALSE;
            if (!connects && ::GetLastError() == ERROR_IO_PENDING && !Ended(pipe.get(), overlapped))
                return;
            ++clients;
            char byte = 0;
            ::ResetEvent(done.get());
            if (!::ReadFile(pipe.get(), &byte, 1, nullptr, &overlapped) &&
                ::GetLastError() != ERROR_IO_PENDING)
                continue;
            if (!Ended(pipe.get(), overlapped))
                return;
            if (overlapped.InternalHigh != 0)
                ++clientsThatSent;
        }
    }

    /// Waits for the end of the call. False if this object's end came first.
    bool Ended(HANDLE pipe, OVERLAPPED& overlapped) const {
        const HANDLE events[] = {stop.get(), done.get()};
        const bool ended = ::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0;
        if (!ended)
            ::CancelIoEx(pipe, &overlapped);
        DWORD count = 0;
        ::GetOverlappedResult(pipe, &overlapped, &count, TRUE);
        return ended;
    }

    const UniqueHandle stop{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const UniqueHandle done{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::atomic<int> clients{0};
    std::atomic<int> clientsThatSent{0};
    std::thread thread;
};

TEST_F(SystemTest, ClientFindsTheServiceThoughAnotherProgramServesInstancesOfItsPipe) {
    const PluggedCamera camera(bus);
    const RunningService service(RunMode::kServiceManager);
    const OtherProgram other;
    for (int round = 0; round < 20; ++round) {
        orvik::ConnectOptions options;
        options.timeout = kDeadline;
        EXPECT_EQ(orvik::Client(options).Cameras(), std::vector<orvik::CameraId>{1});
    }
    EXPECT_GT(other.Clients(), 0) << "no client met the other program";
    EXPECT_EQ(other.ClientsThatSent(), 0);
    EXPECT_TRUE(service.IsRunning());
}

}  // namespace
}  // namespace system_test
