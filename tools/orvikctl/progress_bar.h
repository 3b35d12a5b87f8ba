#pragma once

#include <chrono>
#include <cstdint>

/// A line on standard error that shows the progress, the rate and the time left of a long command.
/// Prints nothing if standard error is not a console.
class ProgressBar {
public:
    explicit ProgressBar(std::uint64_t bytesInAll);

    /// Ends the line and leaves it on the console.
    ~ProgressBar();

    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// May be called often: the line is drawn at most ten times a second, and when all bytes are
    /// done.
    void Show(std::uint64_t bytesDone);

private:
    using Clock = std::chrono::steady_clock;

    const std::uint64_t all;
    const bool visible;
    const Clock::time_point start = Clock::now();
    Clock::time_point drawn{};
    bool begun = false;
};
