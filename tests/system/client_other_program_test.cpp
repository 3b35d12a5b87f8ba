// Another program beside the real service that serves an instance of the camera pipe.

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

/// How often clients met the other program.
struct Meetings {
    int clients = 0;
    int clientsThatSent = 0;
};

/// Serves one instance of the camera pipe, to one client, and reads what that client sends. For the
/// service's clients, this process is another program.
class OtherProgram {
public:
    explicit OtherProgram(Meetings& counts)
        : meetings(counts),
          pipe(OwnFile(::CreateNamedPipeW(kCameraPipeName,
                                          PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, PIPE_TYPE_BYTE,
                                          PIPE_UNLIMITED_INSTANCES, 65536, 65536, 0, nullptr))) {
        EXPECT_TRUE(pipe) << ::GetLastError();
        thread = std::thread([this] { Run(); });
    }
    ~OtherProgram() {
        ::SetEvent(stop.get());
        thread.join();
    }

    OtherProgram(const OtherProgram&) = delete;
    OtherProgram& operator=(const OtherProgram&) = delete;

private:
    void Run() {
        OVERLAPPED overlapped{};
        overlapped.hEvent = done.get();
        const bool connects = ::ConnectNamedPipe(pipe.get(), &overlapped) != FALSE;
        if (!connects && ::GetLastError() == ERROR_IO_PENDING && !Ended(overlapped))
            return;
        ++meetings.clients;
        char byte = 0;
        ::ResetEvent(done.get());
        if (!::ReadFile(pipe.get(), &byte, 1, nullptr, &overlapped) &&
            ::GetLastError() != ERROR_IO_PENDING)
            return;
        if (Ended(overlapped) && overlapped.InternalHigh != 0)
            ++meetings.clientsThatSent;
    }

    /// Waits for the end of the call. False if this object's end came first.
    bool Ended(OVERLAPPED& overlapped) const {
        const HANDLE events[] = {stop.get(), done.get()};
        const bool ended = ::WaitForMultipleObjects(2, events, FALSE, INFINITE) != WAIT_OBJECT_0;
        if (!ended)
            ::CancelIoEx(pipe.get(), &overlapped);
        DWORD count = 0;
        ::GetOverlappedResult(pipe.get(), &overlapped, &count, TRUE);
        return ended;
    }

    Meetings& meetings;
    const UniqueHandle pipe;
    const UniqueHandle stop{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    const UniqueHandle done{::CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::thread thread;
};

TEST_F(SystemTest, ClientFindsTheServiceThoughAnotherProgramServesInstancesOfItsPipe) {
    const PluggedCamera camera(bus);
    const RunningService service(RunMode::kServiceManager);
    Meetings meetings;
    for (int round = 0; round < 20; ++round) {
        // A new instance appears only between two clients: one that appears while a client leaves
        // would look to it like the service's next one.
        const OtherProgram other(meetings);
        orvik::ConnectOptions options;
        options.timeout = kDeadline;
        EXPECT_EQ(orvik::Client(options).Cameras(), std::vector<orvik::CameraId>{1});
    }
    EXPECT_GT(meetings.clients, 0) << "no client met the other program";
    EXPECT_EQ(meetings.clientsThatSent, 0);
    EXPECT_TRUE(service.IsRunning());
}

}  // namespace
}  // namespace system_test
