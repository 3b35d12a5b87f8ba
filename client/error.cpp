#include "orvik/client.h"

#include <iterator>

#include <windows.h>

#include "windows/utf.h"

namespace orvik {

namespace {

/// "text: what the code means (error 5)"
std::string WithSystemText(std::string text, DWORD code) {
    if (code == 0)
        return text;
    wchar_t words[512];
    DWORD length = ::FormatMessageW(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_MAX_WIDTH_MASK,
        nullptr, code, 0, words, static_cast<DWORD>(std::size(words)), nullptr);
    while (length != 0 && (words[length - 1] == L' ' || words[length - 1] == L'.'))
        --length;
    if (length != 0)
        text += ": " + ToUtf8({words, length});
    return text + " (error " + std::to_string(code) + ")";
}

}  // namespace

std::string_view ToString(ErrorKind kind) noexcept {
    switch (kind) {
        case ErrorKind::kNotInstalled:
            return "not installed";
        case ErrorKind::kStopped:
            return "stopped";
        case ErrorKind::kStarting:
            return "starting";
        case ErrorKind::kBusy:
            return "busy";
        case ErrorKind::kAccessDenied:
            return "access denied";
        case ErrorKind::kWrongServer:
            return "wrong server";
        case ErrorKind::kServiceGone:
            return "service gone";
        case ErrorKind::kTimedOut:
            return "timed out";
        case ErrorKind::kCancelled:
            return "cancelled";
        case ErrorKind::kNoSuchCamera:
            return "no such camera";
        case ErrorKind::kRefused:
            return "refused";
        case ErrorKind::kBadAnswer:
            return "bad answer";
        case ErrorKind::kBadArgument:
            return "bad argument";
        case ErrorKind::kSystem:
            return "system error";
        case ErrorKind::kCameraGone:
            return "camera gone";
    }
    return "unknown";
}

Error::Error(ErrorKind errorKind, const std::string& text, std::uint32_t systemCode)
    : std::runtime_error(WithSystemText(text, systemCode)),
      kind(errorKind),
      code(systemCode) {}

}  // namespace orvik
