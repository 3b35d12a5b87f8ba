#pragma once

#include <chrono>
#include <cstdint>

#include "progress.h"

/// One JSON object per second on standard error, and one at the end.
class ProgressLines : public Progress {
public:
    explicit ProgressLines(std::uint64_t bytesInAll) : all(bytesInAll) {}

    void Show(std::uint64_t bytesDone) override;

private:
    using Clock = std::chrono::steady_clock;

    const std::uint64_t all;
    const Clock::time_point start = Clock::now();
    Clock::time_point shown = start;
};
