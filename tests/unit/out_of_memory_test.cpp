// Every allocation of a run made to fail, one at a time.
//
// The service's side runs on the test's thread as it does in the service: the server is made and
// its packets are dispatched. A script on another thread plays the clients and the window thread.
// Only allocations of the service's side fail. Each of them ends the run: std::bad_alloc leaves the
// start or the dispatcher. Nothing may be left, freed twice or used after it is freed.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <new>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "device/io_operation.h"
#include "in_process_service.h"

namespace {

/// A stream's text in memory that is there already: no character of it needs an allocation.
template <typename Character>
class FixedText : public std::basic_streambuf<Character> {
public:
    explicit FixedText(std::basic_ostream<Character>& captured)
        : stream(captured),
          previous(stream.rdbuf(this)) {
        this->setp(memory.data(), memory.data() + memory.size());
    }
    ~FixedText() override { stream.rdbuf(previous); }

    std::basic_string_view<Character> Text() const {
        return {this->pbase(), static_cast<std::size_t>(this->pptr() - this->pbase())};
    }

private:
    std::array<Character, 10'000> memory{};
    std::basic_ostream<Character>& stream;
    std::basic_streambuf<Character>* previous;
};

/// What the script meets when the service has ended its run, or accepts no more clients.
struct ServiceGone {};

/// A client with calls that wait.
class WaitingClient {
public:
    WaitingClient()
        : pipe(OwnFile(::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                     OPEN_EXISTING, 0, nullptr))) {
        if (!pipe)
            throw ServiceGone{};
    }

    void Write(std::span<const std::byte> bytes) {
        DWORD written = 0;
        if (!::WriteFile(pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                         nullptr))
            throw ServiceGone{};
    }

    /// Reads one message, which must be of this type.
    Message Expect(std::uint32_t type) {
        Message message{};
        Read(std::as_writable_bytes(std::span(&message.header, 1)));
        message.body.resize(message.header.bodyLength);
        Read(message.body);
        EXPECT_EQ(message.header.messageType, type);
        return message;
    }

    /// Has read everything that the client sent before.
    void RoundTrip() {
        Write(MessageBytes(kTransferNoData, 1, 0));
        Expect(kTransferFailed);
    }

private:
    void Read(std::span<std::byte> to) {
        while (!to.empty()) {
            DWORD count = 0;
            if (!::ReadFile(pipe.get(), to.data(), static_cast<DWORD>(to.size()), &count, nullptr))
                throw ServiceGone{};
            to = to.subspan(count);
        }
    }

    UniqueHandle pipe;
};

class OutOfMemoryTest : public InProcessService {
protected:
    /// How a run has ended.
    struct Outcome {
        bool allocationFailed = false;
        bool threw = false;           // std::bad_alloc has left the dispatcher, or the start
        bool scriptFinished = false;  // every client was served to its end
        std::string error;            // all of standard error
    };

    /// Plays the script against a new server, whose `number`-th allocation fails.
    Outcome Run(std::size_t number) {
        Outcome outcome;
        const FixedText out(std::cout);
        const FixedText error(std::cerr);
        const FixedText wide(std::wcout);
        const UniqueHandle begin(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        finished = false;
        std::thread script([this, &begin] {
            ::WaitForSingleObject(begin.get(), INFINITE);
            try {
                Play();
                finished = true;
                Wake();
            } catch (const ServiceGone&) {
                const std::lock_guard lock(serverLock);
                if (server)
                    Wake();
            }
        });
        try {
            const guarded_heap::FailingAllocation failing(number);
            try {
                StartServer();
                ::SetEvent(begin.get());
                port.DispatchUntil("the script", [this] { return woken; });
            } catch (const std::bad_alloc&) {
                outcome.threw = true;
            }
            outcome.allocationFailed = failing.HasFailed();
        } catch (const std::exception& exception) {
            ADD_FAILURE() << "ended by another exception: " << exception.what();
        }
        {
            const std::lock_guard lock(serverLock);
            server.reset();
        }
        ::SetEvent(begin.get());
        script.join();
        port.Drain();
        woken = false;
        outcome.scriptFinished = finished;
        outcome.error = error.Text();
        return outcome;
    }

    /// The cameras that every run finds: the second one leaves in it and comes back.
    void PlugCameras() {
        first = Plug();
        path = bus.InterfacePath(Plug());
    }

    void SetUp() override {
        serverLock.lock();  // the library allocates it at its first use, and keeps it
        serverLock.unlock();
        InProcessService::SetUp();
    }
    void TearDown() override {
        path.clear();
        path.shrink_to_fit();
        InProcessService::TearDown();
    }

private:
    void Play() {
        WaitingClient main;
        main.Expect(kCameraAttached);
        main.Expect(kCameraAttached);
        main.RoundTrip();
        main.Write(MessageBytes(kTransferOut, 2, kFirstCamera, Write6(3, Pattern(512, 3))));
        main.Expect(kTransferSucceeded);
        main.Write(MessageBytes(kTransferIn, 3, kFirstCamera, Read6(3, 1)));
        EXPECT_EQ(main.Expect(kTransferSucceeded).body, Pattern(512, 3));

        // A body in two pieces: the first one has been read when another client has its answer.
        const Bytes message =
            MessageBytes(kTransferOut, 4, kFirstCamera, Write6(4, Pattern(512, 4)));
        main.Write(std::span(message).first(100));
        {
            WaitingClient pipe;
            pipe.Expect(kCameraAttached);
            pipe.Expect(kCameraAttached);
            pipe.RoundTrip();
            main.Write(std::span(message).subspan(100));
            main.Expect(kTransferSucceeded);
            pipe.Write(MessageBytes(kTransferIn, 5, kFirstCamera, Read6(4, 1)));
            EXPECT_EQ(pipe.Expect(kTransferSucceeded).body, Pattern(512, 4));
        }

        PostEvent(DBT_DEVICEREMOVECOMPLETE);
        EXPECT_EQ(main.Expect(kCameraDetached).header.cameraId, 2u);
        PostEvent(DBT_DEVICEARRIVAL);
        EXPECT_EQ(main.Expect(kCameraAttached).header.cameraId, 3u);
        main.Write(MessageBytes(kTransferNoData, 6, 3, TestUnitReady()));
        main.Expect(kTransferSucceeded);
    }

    void PostEvent(WPARAM event) {
        const std::lock_guard lock(serverLock);
        if (!server)
            throw ServiceGone{};
        PostInterfaceEvent(event, path);
    }

    /// Behind the packets of what the script did, so everything of it is dispatched.
    void Wake() {
        auto operation = std::make_unique<IoOperation>([this](IoOperation* done) {
            woken = true;
            delete done;
        });
        if (::PostQueuedCompletionStatus(port.Get(), 0, 0, &operation->overlapped))
            static_cast<void>(operation.release());
    }

    vcam::CameraId first = 0;
    std::wstring path;
    std::mutex serverLock;
    bool woken = false;  // on the dispatcher's thread
    std::atomic<bool> finished{false};
};

constexpr std::size_t kNoNumber = std::numeric_limits<std::size_t>::max();

// The lines with which a run may end: the second one comes from each session that is found reading
// or writing.
constexpr std::string_view kEventFailed = "Error in Server::DeviceEvent().\n";
constexpr std::string_view kSessionWasBusy =
    "PROBLEM!!! ServerClient destructor with active overlapped structure.\n";

std::string Without(std::string text, std::string_view line) {
    for (std::size_t at = text.find(line); at != text.npos; at = text.find(line))
        text.erase(at, line.size());
    return text;
}

TEST_F(OutOfMemoryTest, EachFailedAllocationEndsTheRunAndLeavesNothingBehind) {
    ORVIK_NEEDS_GUARDED_HEAP();
    PlugCameras();
    {
        const Outcome undisturbed = Run(kNoNumber);
        ASSERT_TRUE(undisturbed.scriptFinished);
        ASSERT_FALSE(undisturbed.threw);
        ASSERT_EQ(undisturbed.error, "");
    }
    std::size_t number = 0;
    const auto before = std::make_unique<guarded_heap::Snapshot>();
    for (bool failed = true; failed && !HasFailure();) {
        before->Take();
        {
            SCOPED_TRACE("allocation " + std::to_string(++number));
            const Outcome outcome = Run(number);
            failed = outcome.allocationFailed;
            EXPECT_EQ(outcome.threw, failed);
            const std::string line = Without(outcome.error, kSessionWasBusy);
            EXPECT_TRUE(line == "" || (failed && line == kEventFailed)) << line;
        }
        if (!HasFailure()) {  // whose record is memory too
            EXPECT_EQ(before->Difference(), "") << "left behind by allocation " << number;
        }
    }
    EXPECT_GT(number, 40u) << "as many as the script needs";
}

}  // namespace
