#include "progress_lines.h"

#include <cmath>

#include "json.h"
#include "streams.h"

void ProgressLines::Show(std::uint64_t bytesDone) {
    constexpr std::chrono::seconds kInterval{1};
    const auto now = Clock::now();
    if (bytesDone != all && now - shown < kInterval)
        return;
    shown = now;
    const double seconds = std::chrono::duration<double>(now - start).count();
    const double rate = seconds > 0 ? static_cast<double>(bytesDone) / seconds : 0;
    Json json = NewJson();
    json["progress"]["step"] = step;
    json["progress"]["bytes"] = bytesDone;
    json["progress"]["total"] = all;
    json["progress"]["bytes_per_second"] = std::llround(rate);
    SayJson(json);
}
