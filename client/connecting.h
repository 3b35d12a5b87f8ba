#pragma once

#include <string>

#include "client/deadline.h"
#include "windows/unique_handle.h"

namespace orvik {

/// Opens an instance of the pipe for overlapped use. With `checkServer`, it also makes sure that
/// the pipe's server is the service that the service control manager runs.
/// Throws Error as Client's constructor does; nothing has been sent then. A pipe with the wrong
/// server is disconnected cleanly first, because that may be the service in a console.
UniqueHandle ConnectToService(const std::wstring& pipeName, bool checkServer,
                              const Deadline& deadline);

}  // namespace orvik
