// The reaction of orvikctl to Ctrl-C and to the closing of its console window.

#include "cancellation.h"

#include <thread>

#include <gtest/gtest.h>

#include "exit_code.h"
#include "import_hook.h"
#include "support/deadline.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::SetConsoleCtrlHandler) __imp_SetConsoleCtrlHandler;
extern decltype(&::Sleep) __imp_Sleep;
}

namespace {

class Cancellation : public testing::Test {
protected:
    Cancellation() { CatchCancellation(); }

    static bool IsRequested() {
        return ::WaitForSingleObject(CancellationEvent(), 0) == WAIT_OBJECT_0;
    }

    PHANDLER_ROUTINE handler = nullptr;

private:
    const HookedImport<&__imp_SetConsoleCtrlHandler> install{
        [this](PHANDLER_ROUTINE routine, BOOL add) {
            handler = routine;
            return add;
        }};
};

TEST_F(Cancellation, FirstCtrlCIsARequestAndTheSecondEndsTheProcess) {
    constexpr DWORD kKinds[] = {CTRL_C_EVENT, CTRL_BREAK_EVENT};
    for (const DWORD kind : kKinds) {
        CatchCancellation();
        EXPECT_FALSE(IsRequested());
        EXPECT_NO_THROW(ThrowIfCancelled());
        EXPECT_TRUE(handler(kind));
        EXPECT_TRUE(IsRequested());
        EXPECT_THROW(ThrowIfCancelled(), Failure);
        EXPECT_FALSE(handler(kind));  // the system's own handler comes next
    }
}

/// The system ends the process when the handler returns, so the handler must not return before the
/// main thread has disconnected.
TEST_F(Cancellation, ClosedConsoleIsARequestAndTheHandlerDoesNotReturn) {
    constexpr DWORD kKinds[] = {CTRL_CLOSE_EVENT, CTRL_LOGOFF_EVENT, CTRL_SHUTDOWN_EVENT};
    for (const DWORD kind : kKinds) {
        CatchCancellation();
        const UniqueHandle asleep(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        const UniqueHandle returned(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        const UniqueHandle over(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        bool requestedBefore = false;
        using SleepHook = HookedImport<&__imp_Sleep>;
        const SleepHook sleep([&](DWORD milliseconds) {
            if (milliseconds != INFINITE)
                return SleepHook::Original(milliseconds);  // of the thread library
            requestedBefore = IsRequested();
            ::SetEvent(asleep.get());
            ::WaitForSingleObject(over.get(), INFINITE);
        });
        std::thread system([&] {
            handler(kind);
            ::SetEvent(returned.get());
        });
        const HANDLE either[] = {asleep.get(), returned.get()};
        EXPECT_EQ(::WaitForMultipleObjects(2, either, FALSE, Deadline().MillisecondsLeft()),
                  WAIT_OBJECT_0)
            << kind;
        ::SetEvent(over.get());
        system.join();
        EXPECT_TRUE(requestedBefore) << kind;
    }
}

}  // namespace
