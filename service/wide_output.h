#pragma once

#include <streambuf>

/// While it lives, std::wcout writes UTF-8 to std::cout's buffer.
///
/// Without it the C runtime converts to the "C" locale. The first character that this locale does
/// not have (for example in a device path) makes the stream fail, and no wide line after it is
/// written.
/// Thread: one at a time, as for std::wcout without synchronisation.
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
