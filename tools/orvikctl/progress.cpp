#include "progress.h"

#include "progress_bar.h"
#include "progress_lines.h"

namespace {

class NoProgress : public Progress {
public:
    void Show(std::uint64_t) override {}
};

}  // namespace

std::unique_ptr<Progress> NewProgress(ProgressKind kind, const char* step,
                                      std::uint64_t bytesInAll) {
    switch (kind) {
        case ProgressKind::kBar:
            return std::make_unique<ProgressBar>(bytesInAll);
        case ProgressKind::kLines:
            return std::make_unique<ProgressLines>(step, bytesInAll);
        case ProgressKind::kNone:
            break;
    }
    return std::make_unique<NoProgress>();
}
