#pragma once

#include <algorithm>
#include <chrono>

#include <windows.h>

/// Time limit of every wait in the tests. A wait ends with its event; only a broken test needs this
/// long.
inline constexpr std::chrono::seconds kDeadline{30};

/// What is left of a time-out that began at construction.
class Deadline {
public:
    explicit Deadline(std::chrono::milliseconds time = kDeadline)
        : end(std::chrono::steady_clock::now() + time) {}

    DWORD MillisecondsLeft() const {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        return static_cast<DWORD>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
    }

    bool Over() const { return MillisecondsLeft() == 0; }

private:
    std::chrono::steady_clock::time_point end;
};
