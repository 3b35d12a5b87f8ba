// Control requests that are answered when something has happened to a camera.
#pragma once

#include "virtual_bus.h"

namespace vcam {

enum class WaitFor : ULONG { kStarted, kGone, kCounter };

/// Pends a control request until its condition holds. A request that waits for a counter of a
/// camera that is unplugged, or for the start of one that cannot be started, fails.
/// `wait.atLeast` and `wait.counter` matter for kCounter only.
NTSTATUS PendWaiter(Bus* bus, IRP* irp, WaitFor what, const protocol::WaitRecord& wait);

}  // namespace vcam
