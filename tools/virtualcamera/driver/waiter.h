// Control requests that are completed when a condition of a camera holds.
#pragma once

#include "virtual_bus.h"

namespace vcam {

enum class WaitFor : ULONG { kStarted, kGone, kCounter };

/// Pends a control request until its condition holds. It fails if it waits for a counter and the
/// camera is unplugged, or for the start of a camera that cannot be started.
/// `wait.atLeast` and `wait.counter` matter for kCounter only.
NTSTATUS PendWaiter(Bus* bus, IRP* irp, WaitFor what, const protocol::WaitRecord& wait);

}  // namespace vcam
