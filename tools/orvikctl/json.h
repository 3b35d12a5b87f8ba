#pragma once

#include <nlohmann/json.hpp>

#include "streams.h"

using Json = nlohmann::ordered_json;

/// The start of an object in the format described in docs/orvikctl.md.
inline Json NewJson() {
    return {{"format_version", 1}};
}
