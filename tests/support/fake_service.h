// A fake service: a camera pipe whose answers the test decides.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "messages.h"
#include "protocol/message.h"
#include "windows/unique_handle.h"

namespace client_test {

struct Request {
    MessageHeader header;
    Bytes body;
};

/// The service's end of one connection. When the client has disconnected, its calls return false or
/// fail the test.
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

    /// None if the client has disconnected.
    std::optional<Request> NextRequest() {
        const Bytes header = ReadOnce(sizeof(MessageHeader));
        if (header.empty())
            return std::nullopt;
        Request request{};
        EXPECT_EQ(header.size(), sizeof(MessageHeader)) << "no whole header came";
        if (header.size() != sizeof(MessageHeader))
            return request;
        std::memcpy(&request.header, header.data(), sizeof(MessageHeader));
        if (request.header.bodyLength != 0)
            request.body = ReadOnce(request.header.bodyLength);
        EXPECT_EQ(request.body.size(), request.header.bodyLength);
        return request;
    }

    Request ReadRequest() {
        std::optional<Request> request = NextRequest();
        EXPECT_TRUE(request) << "no request came";
        return request ? std::move(*request) : Request{};
    }

    bool Send(const Bytes& bytes) {
        DWORD count = 0;
        return ::WriteFile(pipe.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &count,
                           nullptr) != FALSE;
    }

    bool Send(const MessageHeader& header, const Bytes& body = {}) {
        return Send(HeaderBytes(header)) && (body.empty() || Send(body));
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

    /// Does what the service does for a new client: announces the cameras present, and answers the
    /// round trip.
    void Welcome(std::initializer_list<std::uint32_t> cameras) {
        for (const std::uint32_t camera : cameras)
            Announce(camera);
        Refuse(ReadRequest());
    }

    bool ClientIsConnected() const {
        return ::PeekNamedPipe(pipe.get(), nullptr, 0, nullptr, nullptr, nullptr) != FALSE;
    }

    /// Returns everything that arrives until the client disconnects.
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

/// Serves a camera pipe. As in the service, one instance waits for a client at any time, and the
/// next is created only when a client has connected to that one.
class FakeService {
public:
    static constexpr int kEveryClient = 0;

    /// `script` runs on a thread of its own, for the client with the number `scripted`, or for
    /// every client; clients are numbered from 1 on. For each other client the fake service reads
    /// and does not answer. `beforeNextInstance` is called with the number of each client, before
    /// the next instance is created.
    explicit FakeService(std::function<void(Peer&)> script,
                         std::function<void(int)> beforeNextInstance = {},
                         std::wstring pipeName = UniqueName(), int scripted = 1)
        : name(std::move(pipeName)) {
        UniqueHandle first = MakeInstance();
        acceptor = std::thread([this, scripted, script = std::move(script),
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
                players.emplace_back(
                    [peer = std::move(peer), script,
                     plays = scripted == kEveryClient || scripted == number]() mutable {
                        if (plays)
                            script(peer);
                        else
                            peer.ReadToTheEnd();
                    });
            }
        });
    }

    ~FakeService() {
        stopping = true;
        // Wakes the acceptor, which may not have created its next instance yet.
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

    /// A name that no other pipe has.
    static std::wstring UniqueName() {
        static std::atomic<int> count{0};
        return LR"(\\.\pipe\orvik-client-test-)" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
               std::to_wstring(++count);
    }

    const std::wstring& Name() const { return name; }
    int Connections() const { return connections; }

private:
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
