#pragma once

#include <streambuf>

/// While it lives, std::wcout writes UTF-8 to std::cout's buffer.
///
/// Without it the C runtime converts to the "C" locale, and the first character that this has not
/// (in a device path, say) fails the stream and silences every wide line after it.
/// Thread: as std::wcout without synchronisation, one at a time.
class WideOutput : public std::wstreambuf {
public:
    WideOutput();
    ~WideOutput() override;

    WideOutput(const WideOutput&) = delete;
    WideOutput& operator=(const WideOutput&) = delete;

protected:
    int_type overflow(int_type character) override;
    int sync() override;

private:
    std::wstreambuf* previous;  // std::wcout's own
    wchar_t highSurrogate = 0;  // first half of a pair that is still to come, or 0
};
