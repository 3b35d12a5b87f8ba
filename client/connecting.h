#pragma once

#include <functional>
#include <string>

#include "client/deadline.h"
#include "windows/unique_handle.h"

namespace orvik {

/// Opens an instance of the pipe for overlapped use. With `checkServer`, it also makes sure that
/// the pipe's server is the service that the service control manager runs. Any user may serve
/// further instances of the pipe, so it tries the next instance, until the deadline, when it meets
/// another server while the service runs. Throws Error as Client's constructor does; nothing has
/// been sent then. If the service does not run, a pipe with another server is disconnected cleanly,
/// because that may be the service in a console. `requireNotCancelled` is called before each
/// attempt, and may throw.
UniqueHandle ConnectToService(const std::wstring& pipeName, bool checkServer,
                              const Deadline& deadline,
                              const std::function<void()>& requireNotCancelled);

}  // namespace orvik
