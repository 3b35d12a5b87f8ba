#include "orvik/client.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>
#include <optional>
#include <utility>

#include <windows.h>

#include "client/deadline.h"
#include "client/message_reader.h"
#include "client/pipe_stream.h"
#include "session/message.h"

namespace orvik {

namespace {

constexpr std::chrono::milliseconds kLeaveTimeout{2'000};

// What the public header says, it says without the service's headers.
static_assert(kCdbLimit == kCdbLength);
static_assert(kTransferInLimit == kTransferInLength);
static_assert(kTransferOutLimit == std::numeric_limits<std::int32_t>::max());

std::span<const std::byte> BytesOf(const MessageHeader& header) noexcept {
    return std::as_bytes(std::span(&header, 1));
}

/// A request without a CDB is refused before any camera is looked up, whichever it names.
MessageHeader RoundTripRequest(RequestId id) noexcept {
    return {kTransferNoData, id, 0, 0};
}

/// A request as it goes over the pipe: header, the CDB in its field, the data.
std::vector<std::byte> MakeRequest(TransferType type, RequestId id, CameraId camera,
                                   std::span<const std::byte> cdb,
                                   std::span<const std::byte> data) {
    const MessageHeader header{type, id, camera,
                               static_cast<std::uint32_t>(kCdbFieldSize + data.size())};
    std::vector<std::byte> request;
    request.reserve(sizeof(header) + header.bodyLength);
    const auto headerBytes = BytesOf(header);
    request.insert(request.end(), headerBytes.begin(), headerBytes.end());
    request.insert(request.end(), cdb.begin(), cdb.end());
    request.resize(sizeof(header) + kCdbFieldSize);  // the rest of the field is zero
    request.insert(request.end(), data.begin(), data.end());
    return request;
}

}  // namespace

/// One connection: what has been asked and not been answered, and the cameras announced.
///
/// The service ends its run if its next read of a header meets a client that has left. It starts
/// that read right after it has handled a request. So a client must not leave before this has
/// happened, which it can't see. What it can see:
///
/// - kTransferSucceeded always comes from a later turn of the service's only thread than the one
///   that read the request. So when the newest request succeeded, the next read is pending.
/// - kTransferFailed may be written within the turn that read the request, before the next read.
///   Here another connection helps. The service has one instance waiting for a client at any time,
///   and opens the next only in a later turn, after it has started to read from the client that
///   took the last one. So when this client takes an instance and then sees another one waiting,
///   that later turn has come, and both its connections can be closed.
class Client::Session {
public:
    Session(const std::wstring& name, const Deadline& deadline)
        : pipeName(name),
          pipe(std::in_place, OpenPipe(name, deadline)) {
        // The notifications of the cameras present are ahead of the answer to this.
        RoundTrip(deadline);
    }

    ~Session() {
        try {
            if (pipe && !serviceReads)
                WaitUntilServiceReads(Deadline(kLeaveTimeout));
        } catch (const std::exception&) {
            // The service has gone, or hangs and had its time.
        }
    }

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const std::vector<CameraId>& Cameras() const noexcept { return cameras; }

    RequestId Send(TransferType type, CameraId camera, std::span<const std::byte> cdb,
                   std::span<const std::byte> data, const Deadline& deadline) {
        if (cdb.empty() || cdb.size() > kCdbLimit)
            throw Error(ErrorKind::kBadArgument, "a command has 1 to " + std::to_string(kCdbLimit) +
                                                     " bytes, not " + std::to_string(cdb.size()));
        if (data.size() > kTransferOutLimit)
            throw Error(ErrorKind::kBadArgument,
                        "one request cannot carry " + std::to_string(data.size()) + " bytes");
        // So that a camera is refused that has been reported gone. The service ends its run when
        // it is asked for one that it does not know.
        while (!deadline.Passed() && Receive(Deadline(std::chrono::milliseconds(0)))) {
        }
        if (std::find(cameras.begin(), cameras.end(), camera) == cameras.end())
            throw Error(ErrorKind::kNoSuchCamera, "there is no camera " + std::to_string(camera));

        const RequestId id = NewRequestId();
        Post(id, {type, camera}, MakeRequest(type, id, camera, cdb, data), deadline);
        return id;
    }

    std::vector<std::byte> Wait(RequestId id, const Deadline& deadline) {
        const auto found = requests.find(id);
        if (found == requests.end() || found->second.abandoned)
            throw Error(ErrorKind::kBadArgument,
                        "there is no request " + std::to_string(id) + " to wait for");
        Request& request = found->second;
        while (!request.answer) {
            if (!Receive(deadline))
                throw Error(ErrorKind::kTimedOut, "no answer came in time");
        }
        Message answer = std::move(*request.answer);
        requests.erase(found);
        if (answer.header.messageType == kTransferFailed)
            throw Error(ErrorKind::kRefused,
                        "the command failed on camera " + std::to_string(answer.header.cameraId));
        return std::move(answer.body);
    }

    /// Wait() for a request that nobody will ask for again: its answer is dropped when it comes.
    std::vector<std::byte> WaitOrAbandon(RequestId id, const Deadline& deadline) {
        try {
            return Wait(id, deadline);
        } catch (const Error& error) {
            if (error.Kind() == ErrorKind::kTimedOut)
                requests.at(id).abandoned = true;
            throw;
        }
    }

private:
    struct Request {
        TransferType type;
        CameraId camera;
        bool roundTrip = false;  // asks for nothing and so is always refused
        bool abandoned = false;
        std::optional<Message> answer{};
    };

    RequestId NewRequestId() {
        do {
            ++newestRequest;
        } while (newestRequest == kNotificationId || requests.contains(newestRequest));
        return newestRequest;
    }

    /// Sends `bytes`, a header and its body, with one write: the service handles no header that
    /// comes in pieces, and loses what follows a body in pieces.
    void Post(RequestId id, Request request, std::span<const std::byte> bytes,
              const Deadline& deadline) {
        PipeStream& stream = Pipe();
        try {
            stream.Write(bytes, deadline);
        } catch (...) {
            pipe.reset();
            throw;
        }
        serviceReads = false;
        requests.emplace(id, std::move(request));
    }

    /// Returns when the service has handled all that was sent before.
    void RoundTrip(const Deadline& deadline) {
        const RequestId id = NewRequestId();
        const MessageHeader request = RoundTripRequest(id);
        Post(id, {.type = kTransferNoData, .camera = request.cameraId, .roundTrip = true},
             BytesOf(request), deadline);
        try {
            Wait(id, deadline);
        } catch (const Error& error) {
            if (error.Kind() != ErrorKind::kRefused)
                throw;
        }
    }

    /// Reads one message and takes it in. False when the deadline has passed.
    bool Receive(const Deadline& deadline) {
        PipeStream& stream = Pipe();
        try {
            std::optional<Message> message = reader.Read(stream, deadline);
            if (message)
                TakeIn(std::move(*message));
            return message.has_value();
        } catch (...) {
            pipe.reset();
            throw;
        }
    }

    void TakeIn(Message message) {
        const MessageHeader header = message.header;
        switch (header.messageType) {
            case kCameraAttached:
                if (std::find(cameras.begin(), cameras.end(), header.cameraId) == cameras.end())
                    cameras.push_back(header.cameraId);
                break;
            case kCameraDetached:
                std::erase(cameras, header.cameraId);
                break;
            default:
                TakeInAnswer(std::move(message));
                break;
        }
    }

    void TakeInAnswer(Message message) {
        const MessageHeader header = message.header;
        const bool succeeded = header.messageType == kTransferSucceeded;
        const auto found = requests.find(header.requestId);
        if (found == requests.end() || found->second.answer ||
            found->second.camera != header.cameraId)
            throw Error(ErrorKind::kBadAnswer, "the service answered what was not asked, request " +
                                                   std::to_string(header.requestId));
        Request& request = found->second;
        if (succeeded &&
            (request.roundTrip || (header.bodyLength != 0 && request.type != kTransferIn)))
            throw Error(ErrorKind::kBadAnswer, "the service's answer does not fit request " +
                                                   std::to_string(header.requestId));
        if (succeeded && header.requestId == newestRequest)
            serviceReads = true;
        if (request.abandoned)
            requests.erase(found);
        else
            request.answer = std::move(message);
    }

    /// See above. The caller closes the connection then.
    void WaitUntilServiceReads(const Deadline& deadline) {
        const auto newest = requests.find(newestRequest);
        if (newest != requests.end() && !newest->second.answer)
            RoundTrip(deadline);
        std::optional<PipeStream> other;
        try {
            other.emplace(OpenPipe(pipeName, deadline));
            if (::WaitNamedPipeW(pipeName.c_str(), std::max<DWORD>(deadline.Left(), 1)))
                return;
        } catch (const Error&) {
            // No instance was free in time.
        }
        // The service hangs. If it ever goes on, its next reads will meet these, and then its
        // answers will find nobody, which it takes for a client that has left.
        const MessageHeader last = RoundTripRequest(NewRequestId());
        pipe->Write(BytesOf(last), deadline);
        if (other)
            other->Write(BytesOf(last), deadline);
    }

    PipeStream& Pipe() {
        if (!pipe)
            throw Error(ErrorKind::kServiceGone, "the connection to the service is closed");
        return *pipe;
    }

    const std::wstring pipeName;
    MessageReader reader;            // before `pipe`, which may be reading into it
    std::optional<PipeStream> pipe;  // none once an error has closed it
    std::vector<CameraId> cameras;
    std::map<RequestId, Request> requests;  // until they are answered and the answer is fetched
    RequestId newestRequest = 0;
    bool serviceReads = false;  // surely its next read is pending
};

Client::Client(std::chrono::milliseconds timeout, const std::wstring& pipe)
    : session(std::make_unique<Session>(pipe, Deadline(timeout))) {}

Client::~Client() = default;

std::vector<CameraId> Client::Cameras() const {
    return session->Cameras();
}

std::vector<std::byte> Client::TransferIn(CameraId camera, std::span<const std::byte> cdb,
                                          std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    return session->WaitOrAbandon(session->Send(kTransferIn, camera, cdb, {}, deadline), deadline);
}

void Client::TransferOut(CameraId camera, std::span<const std::byte> cdb,
                         std::span<const std::byte> data, std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    session->WaitOrAbandon(session->Send(kTransferOut, camera, cdb, data, deadline), deadline);
}

void Client::TransferNoData(CameraId camera, std::span<const std::byte> cdb,
                            std::chrono::milliseconds timeout) {
    const Deadline deadline(timeout);
    session->WaitOrAbandon(session->Send(kTransferNoData, camera, cdb, {}, deadline), deadline);
}

RequestId Client::SendTransferIn(CameraId camera, std::span<const std::byte> cdb,
                                 std::chrono::milliseconds timeout) {
    return session->Send(kTransferIn, camera, cdb, {}, Deadline(timeout));
}

RequestId Client::SendTransferOut(CameraId camera, std::span<const std::byte> cdb,
                                  std::span<const std::byte> data,
                                  std::chrono::milliseconds timeout) {
    return session->Send(kTransferOut, camera, cdb, data, Deadline(timeout));
}

RequestId Client::SendTransferNoData(CameraId camera, std::span<const std::byte> cdb,
                                     std::chrono::milliseconds timeout) {
    return session->Send(kTransferNoData, camera, cdb, {}, Deadline(timeout));
}

std::vector<std::byte> Client::Wait(RequestId request, std::chrono::milliseconds timeout) {
    return session->Wait(request, Deadline(timeout));
}

}  // namespace orvik
