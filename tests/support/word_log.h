// What a subscriber has received, as words.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "deadline.h"

namespace client_test {

/// One word for each event, in order. Thread: any.
class WordLog {
public:
    /// Waits for that many events, and returns all.
    std::vector<std::string> WaitFor(std::size_t count) const {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, kDeadline, [&] { return words.size() >= count; }))
            << count << " events did not come; there are " << words.size();
        return words;
    }

    /// Waits for that many events. False if they do not come within `time`.
    bool HasWithin(std::size_t count, std::chrono::milliseconds time) const {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, time, [&] { return words.size() >= count; });
    }

    /// Waits until this is the newest event.
    void WaitForNewest(const std::string& word) const {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, kDeadline,
                                     [&] { return !words.empty() && words.back() == word; }))
            << word << " did not come; the newest is " << (words.empty() ? "" : words.back());
    }

    std::vector<std::string> Words() const { return WaitFor(0); }
    std::size_t Count() const { return Words().size(); }

protected:
    WordLog() = default;
    ~WordLog() = default;

    void Add(std::string word) {
        const std::lock_guard lock(mutex);
        words.push_back(std::move(word));
        changed.notify_all();
    }

private:
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<std::string> words;
};

}  // namespace client_test
