#pragma once

#include <chrono>
#include <cstdint>

#include "progress.h"

/// A line on standard error that shows the progress, the rate and the time left of a long command.
/// Prints nothing if standard error is not a console.
class ProgressBar : public Progress {
public:
    explicit ProgressBar(std::uint64_t bytesInAll);

    /// Ends the line and leaves it on the console.
    ~ProgressBar() override;

    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;

    /// The line is drawn at most ten times a second, from the first byte on, and when all bytes are
    /// done.
    void Show(std::uint64_t bytesDone) override;

private:
    using Clock = std::chrono::steady_clock;

    const std::uint64_t all;
    const bool visible;
    const Clock::time_point start = Clock::now();
    Clock::time_point drawn{};
    bool begun = false;
};
