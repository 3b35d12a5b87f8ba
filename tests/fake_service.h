// A service of the test's own, which can lie.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "protocol/message.h"
#include "windows/unique_handle.h"

namespace client_test {

using Bytes = std::vector<std::byte>;

inline Bytes BytesOf(const MessageHeader& header) {
    const auto* const first = reinterpret_cast<const std::byte*>(&header);
    return {first, first + sizeof(header)};
}

struct Request {
    MessageHeader header;
    Bytes body;
};

/// The service's end of one connection. Its calls return false, or fail the test, once the client
/// has left.
class Peer {
public:
    explicit Peer(UniqueHandle connected) : pipe(std::move(connected)) {}

    /// One ReadFile.
    Bytes ReadOnce(std::size_t most = 1 << 20) {
        Bytes bytes(most);
        DWORD count = 0;
        if (!::ReadFile(pipe.get(), bytes.data(), static_cast<DWORD>(most), &count, nullptr))
            count = 0;
        bytes.resize(count);
        return bytes;
    }

    Request ReadRequest() {
        Request request{};
        const Bytes header = ReadOnce(sizeof(MessageHeader));
        EXPECT_EQ(header.size(), sizeof(MessageHeader)) << "no whole header came";
        if (header.size() != sizeof(MessageHeader))
            return request;
        std::memcpy(&request.header, header.data(), sizeof(MessageHeader));
        if (request.header.bodyLength != 0)
            request.body = ReadOnce(request.header.bodyLength);
        EXPECT_EQ(request.body.size(), request.header.bodyLength);
        return request;
    }

    bool Send(const Bytes& bytes) {
        DWORD count = 0;
        return ::WriteFile(pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count,
                           nullptr) != FALSE;
    }

    bool Send(const MessageHeader& header, const Bytes& body = {}) {
        return Send(BytesOf(header)) && (body.empty() || Send(body));
    }

    bool Succeed(const Request& request, const Bytes& data = {}) {
        return Send({kTransferSucceeded, request.header.requestId, request.header.cameraId,
                     static_cast<std::uint32_t>(data.size())},
                    data);
    }

    bool Refuse(const Request& request) {
        return Send({kTransferFailed, request.header.requestId, request.header.cameraId, 0});
    }

    bool Announce(std::uint32_t camera) {
        return Send({kCameraAttached, kNotificationId, camera, 0});
    }

    /// Greets as the service does: the cameras present, then the answer to the round trip.
    void Welcome(std::initializer_list<std::uint32_t> cameras) {
        for (const std::uint32_t camera : cameras)
            Announce(camera);
        Refuse(ReadRequest());
    }

    bool ClientIsThere() const {
        return ::PeekNamedPipe(pipe.get(), nullptr, 0, nullptr, nullptr, nullptr) != FALSE;
    }

    /// Returns what comes until the client has left.
    Bytes ReadToTheEnd() {
        Bytes all;
        for (Bytes some = ReadOnce(); !some.empty(); some = ReadOnce())
            all.insert(all.end(), some.begin(), some.end());
        return all;
    }

    void Close() { pipe.reset(); }

private:
    UniqueHandle pipe;
};

/// A camera pipe of the test's own. As in the service there is always one instance that waits for a
/// client, and the next is opened only when that one is taken.
class FakeService {
public:
    /// `script` plays the service for the first client, on a thread of its own.
    /// `beforeNextInstance` is called with the number of each client, from 1 on.
    explicit FakeService(std::function<void(Peer&)> script,
                         std::function<void(int)> beforeNextInstance = {},
                         std::wstring pipeName = UniqueName())
        : name(std::move(pipeName)) {
        UniqueHandle first = MakeInstance();
        acceptor = std::thread([this, script = std::move(script),
                                beforeNextInstance = std::move(beforeNextInstance),
                                listening = std::move(first)]() mutable {
            while (true) {
                ::ConnectNamedPipe(listening.get(), nullptr);
                if (stopping) {
                    accepted = true;
                    return;
                }
                const int number = ++connections;
                Peer peer(std::move(listening));
                if (beforeNextInstance)
                    beforeNextInstance(number);
                listening = MakeInstance();
                players.emplace_back([peer = std::move(peer), number, script]() mutable {
                    if (number == 1)
                        script(peer);
                    else
                        peer.ReadToTheEnd();
                });
            }
        });
    }

    ~FakeService() {
        stopping = true;
        // Wakes the acceptor, which may just be about to open its next instance.
        UniqueHandle last;
        while (!last && !accepted) {
            last = OwnFile(
                ::CreateFileW(name.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
            if (!last)
                ::WaitNamedPipeW(name.c_str(), 50);
        }
        acceptor.join();
        for (std::thread& player : players)
            player.join();
    }

    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    const std::wstring& Name() const { return name; }
    int Connections() const { return connections; }

private:
    static std::wstring UniqueName() {
        static std::atomic<int> count{0};
        return LR"(\\.\pipe\orvik-client-test-)" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
               std::to_wstring(++count);
    }

    UniqueHandle MakeInstance() const {
        UniqueHandle instance = OwnFile(::CreateNamedPipeW(
            name.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT,
            PIPE_UNLIMITED_INSTANCES, 65536, 65536, 0, nullptr));
        EXPECT_TRUE(instance) << ::GetLastError();
        return instance;
    }

    const std::wstring name;
    std::atomic<bool> stopping{false};
    std::atomic<bool> accepted{false};  // the acceptor has seen it
    std::atomic<int> connections{0};
    std::vector<std::thread> players;
    std::thread acceptor;
};

}  // namespace client_test
