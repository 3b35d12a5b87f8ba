#pragma once

#include "orvik/client.h"
#include "protocol/message.h"

namespace orvik {

/// The first identifier after `newest` that is neither kNotificationId nor a key of `taken`, the
/// requests that are outstanding.
template <typename Taken>
RequestId NextRequestId(RequestId newest, const Taken& taken) {
    do {
        ++newest;
    } while (newest == kNotificationId || taken.contains(newest));
    return newest;
}

}  // namespace orvik
