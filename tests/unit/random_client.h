// A client that sends random messages, with a model of what has to come back.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <random>
#include <span>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include <windows.h>

#include "support/messages.h"
#include "virtual_camera.h"
#include "windows/unique_handle.h"

namespace random_messages {

inline constexpr std::uint32_t kOrdinaryCamera = 1;
inline constexpr std::uint32_t kSlowCamera = 2;  // answers later than what is asked after it
inline constexpr std::uint32_t kCameras = 2;
inline constexpr std::uint32_t kClients = 3;
inline constexpr std::uint32_t kBlocksOfAClient = 32;
inline constexpr std::size_t kLargestBatch = 120;         // messages in one write
inline constexpr std::size_t kMessagesOfASession = 2000;  // about; then the client connects anew

/// What a client met that the model doesn't allow.
class Unexpected : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// One client with its own thread: sends random messages and compares what comes.
class RandomClient {
public:
    RandomClient(std::uint64_t seed, std::uint32_t clientIndex, const Bytes& slowCamera)
        : random(seed * kClients + clientIndex),
          firstBlock(clientIndex * kBlocksOfAClient),
          memory(kBlocksOfAClient * vcam::kBlockSize),
          slowMemory(slowCamera) {}

    /// Sends about `count` messages. Throws Unexpected.
    void Run(std::size_t count, std::atomic<std::size_t>& progress) {
        ConnectProbe();
        for (std::size_t sent = 0; sent < count;) {
            Connect();
            for (std::size_t ofSession = 0; ofSession < kMessagesOfASession && sent < count;) {
                const std::size_t messages = ExchangeBatch();
                progress += messages;
                ofSession += messages;
                sent += messages;
            }
            Leave();
        }
        AskOnProbe(kTransferSucceeded, RequestBytes(kTransferNoData, 0, 1, TestUnitReady()));
        probe.reset();
    }

private:
    std::uint32_t Below(std::uint32_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    }
    bool OneIn(std::uint32_t number) { return Below(number) == 0; }
    std::uint32_t AnyNumber() { return static_cast<std::uint32_t>(random()); }

    std::uint32_t NewRequestId() {
        std::uint32_t id = AnyNumber();
        while (id == kNotificationId || outstanding.contains(id))
            id = AnyNumber();
        return id;
    }

    std::uint32_t RequestType() { return kTransferOut + Below(3); }

    // ---- What is sent. Each of these adds one message to the batch.

    void Add(std::uint32_t type, std::uint32_t id, std::uint32_t camera, const Bytes& body) {
        const MessageHeader header{type, id, camera, static_cast<std::uint32_t>(body.size())};
        const auto bytes = std::as_bytes(std::span(&header, 1));
        batch.insert(batch.end(), bytes.begin(), bytes.end());
        batch.insert(batch.end(), body.begin(), body.end());
        lastBody = body.size();
        lastIsAnswered = type >= kTransferOut && type <= kTransferNoData;
    }

    Bytes RandomBytes(std::size_t size) {
        Bytes bytes(size);
        for (std::byte& byte : bytes)
            byte = static_cast<std::byte>(random());
        return bytes;
    }

    void AddRequestWithoutACommand() {
        const std::uint32_t id = NewRequestId();
        const std::uint32_t camera = AnyNumber();
        Add(RequestType(), id, camera, RandomBytes(OneIn(3) ? Below(kCdbFieldSize) : 0));
        outstanding[id] = Failed(id, camera);
    }

    void AddUnknownType() {
        std::uint32_t type = OneIn(2) ? Below(10) : AnyNumber();
        if (type >= kTransferOut && type <= kTransferNoData)
            type += 3;
        Add(type, AnyNumber(), AnyNumber(),
            RandomBytes(OneIn(3) ? Below(OneIn(20) ? 3000 : 40) : 0));
    }

    /// A command block with random bytes where the camera doesn't look.
    Bytes Command(std::uint8_t code, std::uint32_t block, std::uint32_t count) {
        Bytes cdb = RandomBytes(kCdbFieldSize);
        cdb[0] = std::byte{code};
        cdb[1] = static_cast<std::byte>(block >> 16 & 0x1F);
        cdb[2] = static_cast<std::byte>(block >> 8);
        cdb[3] = static_cast<std::byte>(block);
        cdb[4] = static_cast<std::byte>(count);
        return cdb;
    }

    void Append(Bytes& body, std::size_t size) {
        const Bytes more = RandomBytes(size);
        body.insert(body.end(), more.begin(), more.end());
    }

    void AddRead(std::uint32_t camera) {
        const bool slow = camera == kSlowCamera;
        const std::uint32_t block = Below(kBlocksOfAClient);
        const std::uint32_t count = 1 + Below(std::min(2u, kBlocksOfAClient - block));
        Bytes body = Command(0x08, block + (slow ? 0 : firstBlock), count);
        Append(body, OneIn(4) ? Below(100) : 0);  // read and ignored
        const std::uint32_t id = NewRequestId();
        Add(kTransferIn, id, camera, body);
        const auto at = (slow ? slowMemory : memory).begin() + block * vcam::kBlockSize;
        outstanding[id] = Succeeded(id, camera, Bytes(at, at + count * vcam::kBlockSize));
    }

    void AddWrite() {
        const std::uint32_t block = Below(kBlocksOfAClient);
        const std::uint32_t count = 1 + Below(std::min(2u, kBlocksOfAClient - block));
        const Bytes data = RandomBytes(OneIn(3) ? Below(1200) : count * vcam::kBlockSize);
        Bytes body = Command(0x0A, firstBlock + block, count);
        body.insert(body.end(), data.begin(), data.end());
        const std::uint32_t id = NewRequestId();
        Add(kTransferOut, id, kOrdinaryCamera, body);
        outstanding[id] = Succeeded(id, kOrdinaryCamera);
        const std::size_t written = std::min<std::size_t>(data.size(), count * vcam::kBlockSize);
        std::copy_n(data.begin(), written, memory.begin() + block * vcam::kBlockSize);
    }

    void AddInquiry() {
        static constexpr char kAnswer[] =
            "\x00\x80\x04\x02\x1f\x00\x00\x00"
            "Orvik   Virtual Camera  F01 ";
        const std::uint32_t allocated = Below(100);
        const std::uint32_t id = NewRequestId();
        const std::uint32_t type = RequestType();
        Bytes body = Command(0x12, 0, allocated);
        Append(body, type == kTransferIn ? 0 : Below(64));
        Add(type, id, kOrdinaryCamera, body);
        Bytes answer(type == kTransferIn ? std::min(allocated, 36u) : 0);
        // Not memcpy: an empty vector has no data, and memcpy may not get a null pointer.
        std::transform(kAnswer, kAnswer + answer.size(), answer.begin(),
                       [](char character) { return static_cast<std::byte>(character); });
        outstanding[id] = Succeeded(id, kOrdinaryCamera, std::move(answer));
    }

    void AddTestUnitReady() {
        const std::uint32_t id = NewRequestId();
        Bytes body = RandomBytes(kCdbFieldSize + Below(64));
        body[0] = std::byte{0};
        Add(RequestType(), id, kOrdinaryCamera, body);
        outstanding[id] = Succeeded(id, kOrdinaryCamera);
    }

    /// One that the camera refuses: an unknown code, a block beyond its end, or a read or write
    /// with the wrong kind of transfer.
    void AddRefusedCommand() {
        const std::uint32_t id = NewRequestId();
        std::uint32_t type = RequestType();
        Bytes body;
        switch (Below(3)) {
            case 0:
                body = RandomBytes(kCdbFieldSize);
                body[0] |= std::byte{0x80};
                break;
            case 1:
                body = Command(OneIn(2) ? 0x08 : 0x0A, 4096 + Below(1 << 20), Below(256));
                break;
            default:
                type = kTransferNoData;
                body = Command(OneIn(2) ? 0x08 : 0x0A, firstBlock, 1);
        }
        Append(body, Below(50));
        Add(type, id, kOrdinaryCamera, body);
        outstanding[id] = Failed(id, kOrdinaryCamera);
    }

    void AddRandomMessage(std::uint32_t camera) {
        const std::uint32_t kind = Below(100);
        if (kind < 52)
            AddRequestWithoutACommand();
        else if (kind < 92)
            AddUnknownType();
        else if (camera == kSlowCamera || kind < 95)
            AddRead(camera);
        else if (kind < 97)
            AddWrite();
        else if (kind < 98)
            AddInquiry();
        else if (kind < 99)
            AddTestUnitReady();
        else
            AddRefusedCommand();
    }

    // ---- The exchange.

    static UniqueHandle Open() {
        UniqueHandle file;
        do {
            file = OwnFile(::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                         OPEN_EXISTING, 0, nullptr));
            // Another client has just taken the instance.
        } while (!file && ::GetLastError() == ERROR_PIPE_BUSY &&
                 ::WaitNamedPipeW(kCameraPipeName, 20'000));
        if (!file)
            throw Unexpected("can't connect");
        return file;
    }

    /// A second connection, which says how far the service is.
    void ConnectProbe() {
        probe = Open();
        Bytes announcements(kCameras * sizeof(MessageHeader));
        for (std::size_t at = 0; at < announcements.size(); at += sizeof(MessageHeader)) {
            DWORD count = 0;
            ::ReadFile(probe.get(), announcements.data() + at, sizeof(MessageHeader), &count,
                       nullptr);
        }
    }

    /// On return the service has taken at least the newest packet of the other connection.
    void AskOnProbe(std::uint32_t answerType, std::span<const std::byte> request) {
        DWORD count = 0;
        MessageHeader answer{};
        if (!::WriteFile(probe.get(), request.data(), static_cast<DWORD>(request.size()), &count,
                         nullptr) ||
            !::ReadFile(probe.get(), &answer, sizeof(answer), &count, nullptr) ||
            count != sizeof(answer) || answer.messageType != answerType)
            throw Unexpected("no answer on the second connection");
    }

    void Connect() {
        pipe = Open();
        for (std::uint32_t camera = 1; camera <= kCameras; ++camera) {
            const Message message = Read();
            if (!(message == Attached(camera)))
                Complain("instead of an announcement", message);
        }
    }

    /// As docs/protocol.md asks: kTransferSucceeded for the newest request says that the service
    /// reads again.
    void Leave() {
        AddTestUnitReady();
        Write(batch);
        batch.clear();
        ReadAnswers();
        pipe.reset();
    }

    /// Sends messages and reads all of their answers. Returns how many messages they were.
    std::size_t ExchangeBatch() {
        // A message alone is read as far as it has been sent when the second connection has its
        // answer, so its pieces reach the service one by one.
        const bool alone = OneIn(4);
        const std::size_t count = alone ? 0 : 1 + Below(kLargestBatch);
        const std::uint32_t camera = OneIn(20) ? kSlowCamera : kOrdinaryCamera;
        for (std::size_t index = 0; index < count; ++index)
            AddRandomMessage(camera);
        if (alone)
            AddWrite();
        std::span<const std::byte> rest(batch);
        // The last body may come in pieces, because nothing follows it before its answer.
        if (lastIsAnswered && lastBody > 1) {
            for (std::uint32_t pieces = Below(3); pieces != 0 && lastBody > 1; --pieces) {
                const std::size_t later = 1 + Below(static_cast<std::uint32_t>(lastBody) - 1);
                Write(rest.first(rest.size() - later));
                AskOnProbe(kTransferFailed, MessageBytes(kTransferNoData, 0, 0));
                rest = rest.last(later);
                lastBody = later;
            }
        }
        Write(rest);
        batch.clear();
        ReadAnswers();
        return count + (alone ? 1 : 0);
    }

    void ReadAnswers() {
        while (!outstanding.empty()) {
            const Message message = Read();
            const auto expected = outstanding.find(message.header.requestId);
            if (expected == outstanding.end())
                Complain("that nothing asked for", message);
            if (!(message == expected->second)) {
                std::ostringstream text;
                text << "instead of " << expected->second;
                Complain(text.str(), message);
            }
            outstanding.erase(expected);
        }
    }

    [[noreturn]] static void Complain(const std::string& text, const Message& message) {
        std::ostringstream stream;
        stream << message << " came " << text;
        throw Unexpected(stream.str());
    }

    void Write(std::span<const std::byte> bytes) {
        DWORD written = 0;
        if (!::WriteFile(pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &written,
                         nullptr))
            throw Unexpected("WriteFile failed: " + std::to_string(::GetLastError()));
    }

    Message Read() {
        Message message;
        Take(std::as_writable_bytes(std::span(&message.header, 1)));
        if (message.header.bodyLength > kTransferInLength)
            Complain("with that length", message);
        message.body.resize(message.header.bodyLength);
        Take(message.body);
        return message;
    }

    /// The next bytes that the service has sent.
    void Take(std::span<std::byte> to) {
        while (received.size() - taken < to.size()) {
            received.erase(received.begin(), received.begin() + static_cast<std::ptrdiff_t>(taken));
            taken = 0;
            const std::size_t before = received.size();
            received.resize(before + 0x10000);
            DWORD count = 0;
            if (!::ReadFile(pipe.get(), received.data() + before, 0x10000, &count, nullptr))
                throw Unexpected("ReadFile failed: " + std::to_string(::GetLastError()));
            received.resize(before + count);
        }
        std::copy_n(received.begin() + static_cast<std::ptrdiff_t>(taken), to.size(), to.begin());
        taken += to.size();
    }

    std::mt19937_64 random;
    std::uint32_t firstBlock;  // of this client's part of the ordinary camera
    Bytes memory;              // what is in that part
    const Bytes& slowMemory;   // what is in the slow camera
    UniqueHandle pipe;
    UniqueHandle probe;
    Bytes batch;               // messages that are not sent yet
    std::size_t lastBody = 0;  // length of the newest message's body
    bool lastIsAnswered = false;
    std::map<std::uint32_t, Message> outstanding;  // answers to come, by their request
    Bytes received;
    std::size_t taken = 0;  // bytes of `received`
};

}  // namespace random_messages
