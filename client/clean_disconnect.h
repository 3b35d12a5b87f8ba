#pragma once

#include <chrono>
#include <string>

#include "client/deadline.h"
#include "client/pipe_stream.h"
#include "orvik/client.h"
#include "windows/unique_handle.h"

// How a client disconnects without ending the service's run.
//
// The service ends its run if it starts a read and finds that the client has closed the connection
// (docs/protocol.md, "Disconnect early"). It starts a read right after it has handled a request. So
// a client must not close the connection before the service has started the read, which the client
// cannot see. It can conclude it from two things:
//
// - The service has one thread. kTransferSucceeded always comes from a later turn of that thread
//   than the turn that read the request. So when the newest request has succeeded, the next read
//   has been started (DisconnectEvidence).
// - kTransferFailed may be written in the turn that read the request, before the next read. Then a
//   second connection helps. At any time one instance of the service's pipe waits for a client. The
//   service opens the next instance only in a later turn, after it has started to read from the
//   client that took the last one. So when a client takes an instance and then sees another one
//   waiting, that later turn has come, and both its connections can be closed (SecondConnection).
//   Any program may serve instances of the pipe too, so the instance that the client takes must be
//   the service's. The one that waits may be another program's: Windows does not tell whose it is.
//   If such an instance appears between the two, the client leaves too early, and the service's run
//   may end.

namespace orvik {

/// Time limit for a clean disconnect: two seconds, less what the rest of a destructor takes.
inline constexpr std::chrono::milliseconds kDisconnectTimeout{1'900};

/// What a client knows from the answers about the service's next read. Thread: one at a time.
class DisconnectEvidence {
public:
    void RequestSent(RequestId id) noexcept {
        newest = id;
        serviceReads = false;
    }
    void RequestSucceeded(RequestId id) noexcept {
        if (id == newest)
            serviceReads = true;
    }

    /// True: the service has started its next read, so the connection can be closed.
    bool ServiceReads() const noexcept { return serviceReads; }

private:
    RequestId newest = 0;
    bool serviceReads = false;
};

/// A second connection, used to confirm that the first one can be closed.
struct SecondConnection {
    /// Takes an instance of the pipe that the process `server` serves, and waits for another one.
    SecondConnection(const std::wstring& pipeName, DWORD server, const Deadline& deadline);

    UniqueHandle pipe;       ///< empty if no such instance was free before the deadline
    bool confirmed = false;  ///< another instance waits for a client
};

/// Waits until `connection`, on which no request is outstanding, can be closed. If the service
/// hangs until the deadline, it finds two requests that touch no camera, with the identifier `id`,
/// when it reads again; then its run does not end.
/// Throws Error when the pipe fails.
void PrepareDisconnect(const PipeStream& connection, const std::wstring& pipeName, RequestId id,
                       const Deadline& deadline);

}  // namespace orvik
