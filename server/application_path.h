// The desktop application that the service starts. orvikctl links it too, for its report.
#pragma once

#include <array>

/// A path in a fixed buffer: a launch makes no C++ allocation that could throw.
using ApplicationPath = std::array<wchar_t, 1024>;

/// The path in the registry, read into `registered`, which must be all zeros; or the fixed path if
/// that cannot be read, is empty or has more than 1024 bytes. A value of any type is taken for
/// text. Thread: any.
const wchar_t* FindApplicationPath(ApplicationPath& registered) noexcept;
