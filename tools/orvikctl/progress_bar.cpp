#include "progress_bar.h"

#include <array>
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
    if (!visible || (bytesDone != all && begun && now - drawn < kInterval))
        return;
    begun = true;
    drawn = now;

    constexpr std::size_t kWidth = 40;
    const double part = static_cast<double>(bytesDone) / static_cast<double>(all);
    const auto filled = static_cast<std::size_t>(part * kWidth);
    const double seconds = std::chrono::duration<double>(now - start).count();
    const double rate = seconds > 0 ? static_cast<double>(bytesDone) / seconds / 1e6 : 0;
    std::array<char, 40> numbers{};
    std::snprintf(numbers.data(), numbers.size(), " %3.0f %% %8.1f MB/s", part * 100, rate);
    Say("\r[" + std::string(filled, '#') + std::string(kWidth - filled, '.') + "]" +
        numbers.data());
}
