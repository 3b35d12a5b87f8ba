// Pipe and variables of recording_application and its test.
#pragma once

namespace recording {

/// Each started application sends one record over an instance of this pipe: lines of UTF-16 text,
/// in the order of recording_application.cpp. It goes on when it has read one byte.
inline constexpr wchar_t kPipeName[] = LR"(\\.\pipe\orvik_recording_application)";

/// A variable of the user's environment in the registry, and one of the service's process alone.
inline constexpr wchar_t kUserVariable[] = L"ORVIK_TEST_OF_THE_USER";
inline constexpr wchar_t kServiceVariable[] = L"ORVIK_TEST_OF_THE_SERVICE";

}  // namespace recording
