// The event of the pending read, for which several threads wait.

#include <atomic>
#include <functional>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_of_fake_service.h"
#include "import_hook.h"
#include "orvik/client.h"
#include "support/client_results.h"
#include "support/fake_service.h"

extern "C" {
extern decltype(&::ReadFile) __imp_ReadFile;
extern decltype(&::ResetEvent) __imp_ResetEvent;
extern decltype(&::WaitForMultipleObjects) __imp_WaitForMultipleObjects;
}

namespace {

using client_test::Client;
using client_test::FakeService;
using client_test::Peer;
using client_test::Request;
using client_test::Signal;

/// Makes the client's thread reset the event of the pending read at a moment when the answer to the
/// test's call arrives, and call a handler before it reads again.
class LateReset {
public:
    /// After it, the test makes one synchronous call. `call` is then called once, on the test's
    /// thread, and must cause a callback.
    void Begin(std::function<void()> call) {
        EXPECT_TRUE(held.Wait());  // else it leaves the pipe to the call
        whenWaiting = std::move(call);
        begun = true;
    }

    Signal reset;     // the answer is to be sent
    Signal handling;  // set by the handler

private:
    using Read = HookedImport<&__imp_ReadFile>;
    using Wait = HookedImport<&__imp_WaitForMultipleObjects>;
    using Reset = HookedImport<&__imp_ResetEvent>;

    DWORD BeforeWait(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
        if (count == 2 && handles[1] == readEvent) {
            if (std::this_thread::get_id() == test) {
                if (begun.exchange(false)) {
                    whenWaiting();
                    waiting.Set();
                    EXPECT_TRUE(handling.Wait());
                }
            } else if (!woken.exchange(true)) {
                held.Set();
                EXPECT_TRUE(waiting.Wait());
                return WAIT_OBJECT_0 + 1;  // as when another thread has read what arrived
            }
        }
        return Wait::Original(count, handles, all, milliseconds);
    }

    BOOL BeforeReset(HANDLE event) {
        if (event == readEvent && woken && !done.exchange(true)) {
            reset.Set();
            EXPECT_EQ(::WaitForSingleObject(event, Deadline().MillisecondsLeft()), WAIT_OBJECT_0);
        }
        return Reset::Original(event);
    }

    const std::thread::id test = std::this_thread::get_id();
    std::function<void()> whenWaiting;
    std::atomic<HANDLE> readEvent{nullptr};
    std::atomic<bool> begun{false};
    std::atomic<bool> woken{false};
    std::atomic<bool> done{false};
    Signal held;     // the client's thread waits for the pipe
    Signal waiting;  // the test's thread does
    const Read read{
        [this](HANDLE file, void* target, DWORD size, DWORD* count, OVERLAPPED* overlapped) {
            if (overlapped != nullptr && overlapped->hEvent != nullptr)
                readEvent = overlapped->hEvent;
            return Read::Original(file, target, size, count, overlapped);
        }};
    const Wait wait{[this](DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
        return BeforeWait(count, handles, all, milliseconds);
    }};
    const Reset resetEvent{[this](HANDLE event) { return BeforeReset(event); }};
};

TEST(ClientReadEvent, AnswerThatArrivesBeforeTheReadEventIsResetIsNotLeftUntilAHandlerReturns) {
    LateReset lateReset;
    Signal answered;
    FakeService service([&](Peer& peer) {
        peer.Welcome({7});
        const Request request = peer.ReadRequest();
        EXPECT_TRUE(lateReset.reset.Wait());
        peer.Succeed(request);
        peer.ReadToTheEnd();
    });
    // The call looks for its answer also at the end of this time-out.
    Client client(10 * kDeadline, service.Name());
    orvik::Subscription subscription;
    lateReset.Begin([&] {
        subscription = client.Subscribe([&](const orvik::Event&) {
            lateReset.handling.Set();
            EXPECT_TRUE(answered.Wait());
        });
    });
    client.TransferNoData(7, orvik::TestUnitReadyCdb(), 10 * kDeadline);
    answered.Set();
}

}  // namespace
