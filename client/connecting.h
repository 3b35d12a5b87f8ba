#pragma once

#include <chrono>
#include <string>

#include "client/deadline.h"
#include "orvik/client.h"
#include "windows/unique_handle.h"

namespace orvik {

/// Time limit for a clean disconnect: two seconds, less what the rest of a destructor takes.
inline constexpr std::chrono::milliseconds kLeaveTimeout{1'900};

/// Opens an instance of the service's pipe, and makes sure that it is the service's.
/// Throws Error as Client's constructor does; nothing has been sent then.
UniqueHandle ConnectToService(const ConnectOptions& options, const Deadline& deadline);

/// Takes one more instance of the pipe, and waits until the service offers yet another.
struct OneMoreConnection {
    OneMoreConnection(const std::wstring& name, const Deadline& deadline);

    UniqueHandle pipe;           // empty if none was free in time
    bool nextIsWaiting = false;  // the service has offered the one after it in time
};

}  // namespace orvik
