// The texts that the client library has for programs.

#include <set>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "orvik/client.h"

namespace {

using orvik::ErrorKind;

TEST(ClientTexts, EachErrorKindHasItsOwn) {
    constexpr int kCount = static_cast<int>(ErrorKind::kCameraGone) + 1;
    std::set<std::string_view> texts;
    for (int kind = 0; kind < kCount; ++kind)
        texts.insert(ToString(static_cast<ErrorKind>(kind)));
    EXPECT_EQ(texts.size(), std::size_t{kCount});
    EXPECT_FALSE(texts.contains(ToString(static_cast<ErrorKind>(kCount))));
    EXPECT_EQ(ToString(ErrorKind::kTimedOut), "timed out");
}

TEST(ClientTexts, LibraryHasTheVersionOfItsHeader) {
    EXPECT_EQ(orvik::Version(), ORVIK_CLIENT_VERSION);
    EXPECT_EQ(std::string(orvik::Version()), std::to_string(ORVIK_CLIENT_VERSION_MAJOR) + "." +
                                                 std::to_string(ORVIK_CLIENT_VERSION_MINOR) + "." +
                                                 std::to_string(ORVIK_CLIENT_VERSION_PATCH));
}

}  // namespace
