#pragma once

#include <algorithm>
#include <chrono>

#include <windows.h>

namespace orvik {

/// The time by which something must have happened.
class Deadline {
public:
    explicit Deadline(std::chrono::milliseconds fromNow) noexcept
        : end(Clock::now() + std::clamp(fromNow, std::chrono::milliseconds(0), kLongest)) {}

    /// Never, for all practical purposes.
    static Deadline None() noexcept { return Deadline(kLongest); }

    bool operator<(const Deadline& other) const noexcept { return end < other.end; }

    /// The milliseconds until then, as the wait functions of Windows take them; 0 when it has
    /// passed.
    DWORD Left() const noexcept {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        return left.count() > 0 ? static_cast<DWORD>(left.count()) : 0;
    }

    /// The same as a duration.
    std::chrono::milliseconds TimeLeft() const noexcept {
        return std::chrono::milliseconds(Left());
    }

    bool Passed() const noexcept { return Clock::now() >= end; }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 30);

    Clock::time_point end;
};

}  // namespace orvik
