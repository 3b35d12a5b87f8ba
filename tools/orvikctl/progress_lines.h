#pragma once

#include <chrono>
#include <cstdint>

#include "progress.h"

/// One JSON object per second on standard error, and one at the end.
class ProgressLines : public Progress {
public:
    ProgressLines(const char* currentStep, std::uint64_t bytesInAll)
        : step(currentStep),
          all(bytesInAll) {}

    void Show(std::uint64_t bytesDone) override;

private:
    using Clock = std::chrono::steady_clock;

    const char* const step;
    const std::uint64_t all;
    const Clock::time_point start = Clock::now();
    Clock::time_point shown = start;
};
