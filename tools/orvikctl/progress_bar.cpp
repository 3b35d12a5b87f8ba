#include "progress_bar.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <string>

#include "streams.h"

ProgressBar::ProgressBar(std::uint64_t bytesInAll)
    : all(bytesInAll),
      visible(StandardErrorIsTerminal()) {}

ProgressBar::~ProgressBar() {
    if (begun)
        Say("\n");
}

void ProgressBar::Show(std::uint64_t bytesDone) {
    constexpr std::chrono::milliseconds kInterval{100};
    const auto now = Clock::now();
    if (!visible || bytesDone == 0 || (bytesDone != all && begun && now - drawn < kInterval))
        return;
    begun = true;
    drawn = now;

    constexpr std::size_t kWidth = 40;
    const double part = static_cast<double>(bytesDone) / static_cast<double>(all);
    const auto filled = static_cast<std::size_t>(part * kWidth);
    const double seconds = std::chrono::duration<double>(now - start).count();
    const double rate = seconds > 0 ? static_cast<double>(bytesDone) / seconds : 0;
    const double left = rate > 0 ? static_cast<double>(all - bytesDone) / rate : 0;
    const auto secondsLeft = static_cast<unsigned long long>(std::ceil(left));
    std::array<char, 80> numbers{};
    std::snprintf(numbers.data(), numbers.size(), " %3.0f %% %7.1f MB/s %3llu:%02llu left",
                  part * 100, rate / 1e6, secondsLeft / 60, secondsLeft % 60);
    Say("\r[" + std::string(filled, '#') + std::string(kWidth - filled, '.') + "]" +
        numbers.data());
}
