// What the program that writes to the log and its test agree on.
#pragma once

namespace log_writer {

inline constexpr char kSeparator = '\x01';

/// Set by the program where it meets the test, and by the test to let it go on. Both automatic, and
/// the name of the meeting follows.
inline constexpr char kHereEvent[] = "orvik-test-log-writer-here-";
inline constexpr char kGoEvent[] = "orvik-test-log-writer-go-";

}  // namespace log_writer
