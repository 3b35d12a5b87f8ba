#include "pipe_client.h"

#include <cstring>
#include <memory>
#include <system_error>
#include <utility>

#include <windows.h>
#include <boost/smart_ptr/enable_shared_from_this.hpp>
#include <boost/smart_ptr/make_shared.hpp>

#include "device/io_operation.h"
#include "windows/unique_handle.h"

namespace {

constexpr std::size_t kReadSize = 0x10000;

std::system_error Error(DWORD code, const char* what) {
    return {static_cast<int>(code), std::system_category(), what};
}

}  // namespace

struct PipeClient::State : boost::enable_shared_from_this<State> {
    UniqueHandle pipe;
    std::size_t pendingWrites = 0;
    bool ended = false;
    Bytes buffer;  // of the read in progress
    Bytes received;

    void Read() {
        buffer.resize(kReadSize);
        auto operation =
            std::make_unique<IoOperation>([self = shared_from_this()](IoOperation* done) {
                const std::unique_ptr<IoOperation> owner(done);
                self->ReadComplete(*done);
            });
        if (!::ReadFile(pipe.get(), buffer.data(), static_cast<DWORD>(buffer.size()), nullptr,
                        &operation->overlapped) &&
            ::GetLastError() != ERROR_IO_PENDING) {
            ended = true;
            return;
        }
        static_cast<void>(operation.release());
    }

    void ReadComplete(const IoOperation& operation) {
        if (operation.status == IoOperation::kError) {
            ended = true;
            return;
        }
        received.insert(received.end(), buffer.begin(),
                        buffer.begin() + static_cast<std::ptrdiff_t>(operation.bytesTransferred));
        if (pipe)
            Read();
    }
};

PipeClient::PipeClient(TestPort& port, Reading reading) : state(boost::make_shared<State>()) {
    state->pipe = OwnFile(::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                        OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
    if (!state->pipe)
        throw Error(::GetLastError(), "connect to the camera pipe");
    if (::CreateIoCompletionPort(state->pipe.get(), port.Get(), 0, 0) != port.Get())
        throw Error(::GetLastError(), "CreateIoCompletionPort");
    if (reading == Reading::kAtOnce)
        state->Read();
}

PipeClient::~PipeClient() {
    Close();  // packets still to come keep the rest alive
}

void PipeClient::Write(std::span<const std::byte> bytes) {
    const auto copy = boost::make_shared<Bytes>(bytes.begin(), bytes.end());
    auto operation = std::make_unique<IoOperation>([state = state, copy](IoOperation* done) {
        const std::unique_ptr<IoOperation> owner(done);
        --state->pendingWrites;
    });
    if (!::WriteFile(state->pipe.get(), copy->data(), static_cast<DWORD>(copy->size()), nullptr,
                     &operation->overlapped)) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_IO_PENDING)
            throw Error(error, "write to the camera pipe");
    }
    ++state->pendingWrites;
    static_cast<void>(operation.release());
}

void PipeClient::StartReading() {
    state->Read();
}

void PipeClient::Close() {
    state->pipe.reset();
}

std::size_t PipeClient::PendingWrites() const noexcept {
    return state->pendingWrites;
}

bool PipeClient::HasEnded() const noexcept {
    return state->ended;
}

std::size_t PipeClient::BytesReceived() const noexcept {
    return state->received.size();
}

std::vector<Message> PipeClient::Messages() const {
    std::vector<Message> messages;
    std::size_t at = 0;
    while (state->received.size() - at >= sizeof(MessageHeader)) {
        Message message;
        std::memcpy(&message.header, state->received.data() + at, sizeof(MessageHeader));
        const std::size_t bodyAt = at + sizeof(MessageHeader);
        if (state->received.size() - bodyAt < message.header.bodyLength)
            break;
        const auto body = state->received.begin() + static_cast<std::ptrdiff_t>(bodyAt);
        message.body.assign(body, body + static_cast<std::ptrdiff_t>(message.header.bodyLength));
        at = bodyAt + message.header.bodyLength;
        messages.push_back(std::move(message));
    }
    return messages;
}
