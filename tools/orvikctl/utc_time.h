#pragma once

#include <array>
#include <cstdio>
#include <string>

#include <windows.h>

/// "2026-11-22T13:31:15Z"
inline std::string TimeOf(const FILETIME& time) {
    SYSTEMTIME utc{};
    ::FileTimeToSystemTime(&time, &utc);
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%04u-%02u-%02uT%02u:%02u:%02uZ", utc.wYear, utc.wMonth,
                  utc.wDay, utc.wHour, utc.wMinute, utc.wSecond);
    return text.data();
}
