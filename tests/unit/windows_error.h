#pragma once

#include <string>

#include <gtest/gtest.h>

#include "device/windows_exception.h"

/// Runs `call`, which must throw a WindowsException, and returns its text.
template <typename Call>
std::string WindowsErrorOf(Call call) {
    try {
        call();
    } catch (const WindowsException& exception) {
        return exception.what();
    }
    ADD_FAILURE() << "no exception";
    return {};
}

/// Whether a text begins so; otherwise the failure shows it.
inline testing::AssertionResult StartsWith(const std::string& text, const std::string& start) {
    return text.starts_with(start) ? testing::AssertionSuccess()
                                   : testing::AssertionFailure() << text;
}
