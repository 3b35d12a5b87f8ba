#pragma once

#include <cstdint>
#include <memory>

/// How the progress of a long command is shown on standard error.
enum class ProgressKind {
    kNone,
    kBar,    // on a console only
    kLines,  // one JSON object a second, for programs
};

/// Shows the progress of a long command.
class Progress {
public:
    virtual ~Progress() = default;

    /// Called after each piece, and about once a second. Shows no more than is useful, but always
    /// the end.
    virtual void Show(std::uint64_t bytesDone) = 0;
};

/// The progress of one step of a command: `step` is "read", "write", "verify" or "compare".
std::unique_ptr<Progress> NewProgress(ProgressKind kind, const char* step,
                                      std::uint64_t bytesInAll);
