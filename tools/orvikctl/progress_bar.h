#pragma once

#include <chrono>
#include <cstdint>

/// A line on standard error that says how far a long command is, how fast it goes and when it will
/// be done. Says nothing if standard error is no terminal.
class ProgressBar {
public:
    explicit ProgressBar(std::uint64_t bytesInAll);

    /// Leaves the line as it is and begins a new one.
    ~ProgressBar();

    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// Call as often as you like: it draws ten times a second, and when all bytes are done.
    void Show(std::uint64_t bytesDone);

private:
    using Clock = std::chrono::steady_clock;

    const std::uint64_t all;
    const bool visible;
    const Clock::time_point start = Clock::now();
    Clock::time_point drawn{};
    bool begun = false;
};
