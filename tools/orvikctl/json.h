#pragma once

#include <nlohmann/json.hpp>

#include "streams.h"

using Json = nlohmann::ordered_json;

/// An object of the format that docs/orvikctl.md describes, to add to.
inline Json NewJson() {
    return {{"format_version", 1}};
}
