#pragma once

#include <exception>

#include "cancellation.h"
#include "json.h"

/// Sets `json[key]` to the result of `find`. If that throws, the value is null, and the object
/// `unknown` in `json` has the cause under the same key. Throws only on Ctrl-C, then Failure.
template <class Find>
void AddFact(Json& json, const char* key, const Find& find) {
    try {
        json[key] = find();
    } catch (const std::exception& error) {
        ThrowIfCancelled();
        json[key] = nullptr;
        json["unknown"][key] = error.what();
    }
}
