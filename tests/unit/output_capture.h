#pragma once

#include <cstddef>
#include <iostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <string_view>

/// Takes what the service writes to std::cout, std::cerr and std::wcout while it lives.
/// Thread: the streams are used by one thread only meanwhile.
class OutputCapture {
public:
    OutputCapture()
        : previousOut(std::cout.rdbuf(&out)),
          previousError(std::cerr.rdbuf(&error)),
          previousWide(std::wcout.rdbuf(&wide)) {}

    ~OutputCapture() {
        std::cout.rdbuf(previousOut);
        std::cerr.rdbuf(previousError);
        std::wcout.rdbuf(previousWide);
    }

    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    std::string Out() const { return out.str(); }
    std::string Error() const { return error.str(); }
    std::wstring Wide() const { return wide.str(); }

    /// How often `text` occurs.
    static std::size_t Count(std::string_view whole, std::string_view text) {
        std::size_t count = 0;
        for (std::size_t at = whole.find(text); at != whole.npos; at = whole.find(text, at + 1))
            ++count;
        return count;
    }
    std::size_t CountOut(std::string_view text) const { return Count(out.str(), text); }
    std::size_t CountError(std::string_view text) const { return Count(error.str(), text); }

    /// Forgets everything, also the memory.
    void Clear() {
        std::stringbuf().swap(out);  // an assignment keeps the memory
        std::stringbuf().swap(error);
        std::wstringbuf().swap(wide);
    }

private:
    std::stringbuf out;
    std::stringbuf error;
    std::wstringbuf wide;
    std::streambuf* previousOut;
    std::streambuf* previousError;
    std::wstreambuf* previousWide;
};
