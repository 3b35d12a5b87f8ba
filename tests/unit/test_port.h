#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>

#include <windows.h>

#include "support/deadline.h"
#include "windows/unique_handle.h"

/// What was waited for did not happen in time.
class TestTimeout : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A completion port that the test's own thread serves with the service's dispatcher.
///
/// Thread: the test's, which so is the dispatcher thread.
class TestPort {
public:
    explicit TestPort(std::chrono::milliseconds deadline = kDeadline);

    /// Closes the port. Drain() it before.
    ~TestPort();

    TestPort(const TestPort&) = delete;
    TestPort& operator=(const TestPort&) = delete;

    HANDLE Get() const noexcept { return port.get(); }

    /// Dispatches packets until `condition` holds, which is looked at before each.
    /// Throws TestTimeout after the deadline, and the exceptions of the handlers.
    void DispatchUntil(const std::string& what, const std::function<bool()>& condition);

    /// Dispatches exactly one packet. Throws as DispatchUntil().
    void DispatchOne();

    /// Dispatches every packet that is on the port by now, and those that come of them at once.
    /// Throws as DispatchUntil().
    void DispatchQueued();

    /// Returns when at least `count` packets are on the port, without taking any.
    /// Throws TestTimeout after the deadline.
    void WaitForPackets(std::size_t count);

    /// Dispatches until no IoOperation is left but those that were there when this port was made.
    /// Then the port must be empty too. A failed expectation lists the rest.
    void Drain();

    /// IoOperation objects that exist now, without those that were there before this port.
    std::size_t Operations() const noexcept;

private:
    void StartTimer();
    void StopTimer();
    static void CALLBACK TimeIsUp(PTP_CALLBACK_INSTANCE instance, void* context, PTP_TIMER timer);

    UniqueHandle port;
    std::chrono::milliseconds deadline;
    std::size_t operationsBefore;
    PTP_TIMER timer;
    std::uint64_t wait = 0;  // counts waits; odd: one is going on
};
