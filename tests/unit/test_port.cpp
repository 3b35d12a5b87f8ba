#include "test_port.h"

#include <memory>
#include <system_error>
#include <utility>

#include <gtest/gtest.h>
#include <boost/smart_ptr/make_shared.hpp>

#include "device/io_operation.h"
#include "guarded_heap.h"
#include "service/dispatcher.h"

namespace {

std::system_error LastError(const char* what) {
    return {static_cast<int>(::GetLastError()), std::system_category(), what};
}

/// IoCompletionBasicInformation: the packets that are still on a completion port.
std::size_t QueuedPackets(HANDLE port) {
    using Query = LONG(WINAPI*)(HANDLE, int, void*, ULONG, ULONG*);
    static const auto query = reinterpret_cast<Query>(reinterpret_cast<void (*)()>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQueryIoCompletion")));
    LONG depth = 0;
    if (query == nullptr || query(port, 0, &depth, sizeof(depth), nullptr) != 0)
        throw std::runtime_error("NtQueryIoCompletion failed");
    return static_cast<std::size_t>(depth);
}

}  // namespace

TestPort::TestPort(std::chrono::milliseconds longestWait)
    : port(::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1)),
      deadline(longestWait),
      operationsBefore(guarded_heap::LiveBlocks(sizeof(IoOperation))),
      timer(::CreateThreadpoolTimer(TimeIsUp, this, nullptr)) {
    if (!port || timer == nullptr)
        throw LastError("port or timer of the test");
}

TestPort::~TestPort() {
    ::CloseThreadpoolTimer(timer);
}

void TestPort::DispatchUntil(const std::string& what, const std::function<bool()>& condition) {
    StartTimer();
    try {
        while (!condition()) {
            if (!DispatchCompletion(port.get()))
                throw std::logic_error("the quit operation came while waiting for " + what);
        }
    } catch (const TestTimeout&) {
        StopTimer();
        throw TestTimeout("waited too long for: " + what);
    } catch (...) {
        StopTimer();
        throw;
    }
    StopTimer();
}

void TestPort::DispatchOne() {
    bool first = true;
    DispatchUntil("one packet", [&first] { return !std::exchange(first, false); });
}

void TestPort::DispatchQueued() {
    do {
        const auto taken = boost::make_shared<bool>(false);
        auto marker = std::make_unique<IoOperation>([taken](IoOperation* operation) {
            *taken = true;
            delete operation;
        });
        if (!::PostQueuedCompletionStatus(port.get(), 0, 0, &marker->overlapped))
            throw LastError("PostQueuedCompletionStatus");
        static_cast<void>(marker.release());
        DispatchUntil("what is queued", [&taken] { return *taken; });
    } while (QueuedPackets(port.get()) != 0);
}

void TestPort::WaitForPackets(std::size_t count) {
    // Nothing signals this but the packet itself, and that is to stay where it is.
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (QueuedPackets(port.get()) < count) {
        if (std::chrono::steady_clock::now() > end)
            throw TestTimeout("waited too long for " + std::to_string(count) + " packets");
        ::SleepEx(1, TRUE);
    }
}

void TestPort::Drain() {
    try {
        DispatchUntil("the last operation's packet", [this] { return Operations() == 0; });
    } catch (const TestTimeout&) {
        ADD_FAILURE() << Operations() << " operations are left, and no packet comes for them";
    }
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    ::GetQueuedCompletionStatus(port.get(), &bytes, &key, &overlapped, 0);
    EXPECT_EQ(overlapped, nullptr) << "a packet has come for an operation that is freed already";
}

std::size_t TestPort::Operations() const noexcept {
    return guarded_heap::LiveBlocks(sizeof(IoOperation)) - operationsBefore;
}

void TestPort::StartTimer() {
    ++wait;
    ULARGE_INTEGER due{};
    due.QuadPart = static_cast<ULONGLONG>(-10000 * deadline.count());  // 100 ns, from now
    FILETIME time{due.LowPart, due.HighPart};
    ::SetThreadpoolTimer(timer, &time, 0, 0);
}

void TestPort::StopTimer() {
    ::SetThreadpoolTimer(timer, nullptr, 0, 0);
    ::WaitForThreadpoolTimerCallbacks(timer, TRUE);
    ++wait;
}

/// Wakes the dispatcher with an operation that throws, if the same wait is still going on then.
void CALLBACK TestPort::TimeIsUp(PTP_CALLBACK_INSTANCE /*instance*/, void* context,
                                 PTP_TIMER /*timer*/) {
    auto* const self = static_cast<TestPort*>(context);
    auto alarm = std::make_unique<IoOperation>([self, waited = self->wait](IoOperation* operation) {
        TestPort* const owner = self;
        const bool late = owner->wait == waited;
        delete operation;  // and this callable
        if (late)
            throw TestTimeout("");
    });
    if (::PostQueuedCompletionStatus(self->port.get(), 0, 0, &alarm->overlapped))
        static_cast<void>(alarm.release());
}
