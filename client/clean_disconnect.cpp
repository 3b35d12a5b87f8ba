#include "client/clean_disconnect.h"

#include <utility>

#include <windows.h>

#include "client/event.h"
#include "client/pipe_instance.h"
#include "client/request_message.h"

namespace orvik {

SecondConnection::SecondConnection(const std::wstring& pipeName, const Deadline& deadline) {
    while (!(pipe = OpenPipeInstance(pipeName))) {
        if (::GetLastError() != ERROR_PIPE_BUSY || deadline.Passed())
            return;
        WaitForPipeInstance(pipeName, deadline);
    }
    confirmed = WaitForPipeInstance(pipeName, deadline);
}

void PrepareDisconnect(const PipeStream& connection, const std::wstring& pipeName, RequestId id,
                       const Deadline& deadline) {
    SecondConnection second(pipeName, deadline);
    if (second.confirmed)
        return;
    // The service hangs. If it goes on one day, its next reads find these requests. It cannot write
    // the answers, because the clients have gone, and takes that for an ordinary disconnect.
    const RoundTripRequest request = MakeRoundTripRequest(id);
    const UniqueHandle event = MakeEvent(true);
    PipeWrite first(event.get());
    first.Start(connection, request);
    first.Finish(deadline);
    if (!second.pipe)
        return;
    const PipeStream secondStream(std::move(second.pipe), nullptr);  // reads nothing
    PipeWrite write(event.get());
    write.Start(secondStream, request);
    write.Finish(deadline);
}

}  // namespace orvik
