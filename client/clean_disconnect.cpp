#include "client/clean_disconnect.h"

#include <array>
#include <span>
#include <utility>
#include <vector>

#include <windows.h>

#include "client/event.h"
#include "client/pipe_instance.h"
#include "client/request_message.h"

namespace orvik {

SecondConnection::SecondConnection(const std::wstring& pipeName, DWORD server,
                                   const Deadline& deadline) {
    std::vector<UniqueHandle> others;  // held, so that the next attempt takes another instance
    while (!pipe) {
        UniqueHandle taken = OpenPipeInstance(pipeName);
        const DWORD code = taken ? ERROR_SUCCESS : ::GetLastError();
        if (taken && ServerProcess(taken.get()) == server)
            pipe = std::move(taken);
        else if (deadline.Passed() || (!taken && code != ERROR_PIPE_BUSY))
            return;
        else if (taken)
            others.push_back(std::move(taken));
        else
            WaitForPipeInstance(pipeName, deadline);
    }
    confirmed = WaitForPipeInstance(pipeName, deadline);
}

void PrepareDisconnect(const PipeStream& connection, const std::wstring& pipeName, RequestId id,
                       const Deadline& deadline) {
    SecondConnection second(pipeName, connection.ServerProcess(), deadline);
    if (second.confirmed)
        return;
    // The service hangs. If it goes on one day, its next reads find these requests. It cannot write
    // the answers, because the clients have gone, and takes that for an ordinary disconnect. Two,
    // because the end of an earlier write may still be queued behind the first: then the answer to
    // the first waits for that write, and the service reads once more.
    const RoundTripRequest request = MakeRoundTripRequest(id);
    const std::array requests{request, request};
    const auto bytes = std::as_bytes(std::span(requests));
    const UniqueHandle event = MakeEvent(true);
    PipeWrite first(event.get());
    first.Start(connection, bytes);
    first.Finish(deadline);
    if (!second.pipe)
        return;
    const PipeStream secondStream(std::move(second.pipe), nullptr);  // reads nothing
    PipeWrite write(event.get());
    write.Start(secondStream, bytes);
    write.Finish(deadline);
}

}  // namespace orvik
