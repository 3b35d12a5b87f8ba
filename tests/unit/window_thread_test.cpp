// The thread of the notification window, which is never stopped, beside the dispatcher thread.

#include <atomic>
#include <cstddef>
#include <iostream>
#include <new>
#include <streambuf>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "guarded_heap.h"
#include "import_hook.h"
#include "lifetime_fixture.h"
#include "server/launch_functions.h"

namespace {

TEST_F(LifetimeTest, DeviceEventPostedToADestroyedServerIsDiscarded) {
    ORVIK_NEEDS_GUARDED_HEAP();
    StopServer();
    // As in the service, whose server's memory is there up to the end of the process. Two of them:
    // nothing of the first is kept for its successor's sake.
    struct {
        alignas(Server) std::byte bytes[sizeof(Server)];
    } memories[2];
    std::vector<Server*> destroyed;
    for (auto& memory : memories) {
        destroyed.push_back(new (memory.bytes) Server(port.Get()));
        destroyed.back()->~Server();
        port.Drain();
    }
    output.Clear();

    struct {
        DEV_BROADCAST_DEVICEINTERFACE_W record{};
        wchar_t rest[1000] = L"";
    } event;
    event.record.dbcc_size = sizeof(event);
    event.record.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    event.record.dbcc_classguid = vcam::kCdromInterface;
    const std::size_t records = guarded_heap::LiveBlocks(sizeof(event));
    for (Server* const gone : destroyed) {
        gone->PostDeviceEvent(DBT_DEVICEARRIVAL,
                              reinterpret_cast<const DEV_BROADCAST_HDR*>(&event.record));
        EXPECT_EQ(port.Operations(), 1u);
        EXPECT_EQ(guarded_heap::LiveBlocks(sizeof(event)), records + 1);
        port.DispatchOne();
        EXPECT_EQ(port.Operations(), 0u);
        EXPECT_EQ(guarded_heap::LiveBlocks(sizeof(event)), records);
    }
    EXPECT_EQ(output.Wide(), L"") << "the event was handled";
    EXPECT_EQ(output.Out() + output.Error(), "");
}

/// Passes on what the thread that made this writes to the stream, and counts the writes of others.
class ThreadWatch : public std::streambuf {
public:
    explicit ThreadWatch(std::ostream& watched) : stream(watched), previous(stream.rdbuf(this)) {}
    ~ThreadWatch() override { stream.rdbuf(previous); }

    ThreadWatch(const ThreadWatch&) = delete;
    ThreadWatch& operator=(const ThreadWatch&) = delete;

    int ForeignWrites() const noexcept { return foreignWrites; }

protected:
    int_type overflow(int_type character) override {
        const char text = traits_type::to_char_type(character);
        xsputn(&text, 1);
        return traits_type::not_eof(character);
    }
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        if (::GetCurrentThreadId() == owner)
            return previous->sputn(text, size);
        ++foreignWrites;
        return size;
    }

private:
    std::ostream& stream;
    std::streambuf* previous;
    DWORD owner = ::GetCurrentThreadId();
    std::atomic<int> foreignWrites{0};
};

/// Asks for the desktop application again and again, as drives with the library come.
class LaunchingThread {
public:
    explicit LaunchingThread(Server& serverToUse) : server(serverToUse) {
        thread.reset(::CreateThread(nullptr, 0, Run, this, 0, nullptr));
    }
    ~LaunchingThread() {
        stopping = true;
        ::WaitForSingleObject(thread.get(), INFINITE);
    }

    LaunchingThread(const LaunchingThread&) = delete;
    LaunchingThread& operator=(const LaunchingThread&) = delete;

private:
    static DWORD WINAPI Run(void* argument) {
        auto* const self = static_cast<LaunchingThread*>(argument);
        while (!self->stopping)
            self->server.LaunchIfNoMainCommunicator();
        return 0;
    }

    Server& server;
    std::atomic<bool> stopping{false};
    UniqueHandle thread;
};

TEST_F(LifetimeTest, SessionsEndOnTheDispatcherThreadAloneWhileAnotherLooksForTheMainCommunicator) {
    const UniqueHandle launched(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const HookedImport<&queryUserToken> token([&launched](ULONG, HANDLE*) {
        ::SetEvent(launched.get());
        return FALSE;
    });
    const ThreadWatch errors(std::cerr);  // each of those launches writes a line
    const ThreadWatch lines(std::cout);
    {
        const LaunchingThread launching(*server);
        ASSERT_EQ(::WaitForSingleObject(launched.get(), 20000), WAIT_OBJECT_0);
        for (int count = 0; count < 100; ++count) {
            main = Connect(Reading::kNever);
            Leave(main);
        }
    }
    EXPECT_EQ(lines.ForeignWrites(), 0) << "another thread has ended sessions";
    EXPECT_GT(errors.ForeignWrites(), 0);
    ExpectServing();
}

}  // namespace
