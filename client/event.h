#pragma once

#include <windows.h>

#include "orvik/client.h"
#include "windows/unique_handle.h"

namespace orvik {

/// A Windows event object, not signalled. Throws Error kSystem.
inline UniqueHandle MakeEvent(bool manualReset) {
    UniqueHandle event(::CreateEventW(nullptr, manualReset, FALSE, nullptr));
    if (!event)
        throw Error(ErrorKind::kSystem, "cannot create an event", ::GetLastError());
    return event;
}

}  // namespace orvik
