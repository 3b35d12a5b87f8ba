#pragma once

#include "orvik/client.h"
#include "protocol/message.h"

namespace orvik {

/// The next identifier behind `newest` that is not among the keys of `taken`, which are those of
/// requests without an answer.
template <typename Taken>
RequestId NextRequestId(RequestId newest, const Taken& taken) {
    do {
        ++newest;
    } while (newest == kNotificationId || taken.contains(newest));
    return newest;
}

}  // namespace orvik
