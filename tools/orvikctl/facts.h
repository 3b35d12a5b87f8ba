#pragma once

#include <exception>

#include "json.h"

/// Sets `json[key]` to the result of `find`. If that throws, the value is null, and the object
/// `unknown` in `json` has the cause under the same key.
template <class Find>
void AddFact(Json& json, const char* key, const Find& find) {
    try {
        json[key] = find();
    } catch (const std::exception& error) {
        json[key] = nullptr;
        json["unknown"][key] = error.what();
    }
}
