// What the tests of the client library with a fake service share.
#pragma once

#include <chrono>
#include <initializer_list>
#include <string>

#include "orvik/client.h"
#include "support/bytes.h"
#include "support/fake_service.h"

namespace client_test {

/// A client of a pipe whose server is not the service that the service control manager runs. It may
/// send as much as it likes.
class Client : public orvik::Client {
public:
    Client(std::chrono::milliseconds timeout, const std::wstring& pipe)
        : orvik::Client(orvik::ConnectOptions{timeout, false, pipe, orvik::kTransferOutLimit}) {}
};

inline Bytes MakeBytes(std::initializer_list<unsigned> values) {
    Bytes bytes;
    for (const unsigned value : values)
        bytes.push_back(static_cast<std::byte>(value));
    return bytes;
}

/// A fake service's script with camera 7: receives two requests, then answers the first one with
/// the byte 1 and the second one with the byte 2.
inline void AnswerTwoRequestsTogether(Peer& peer) {
    peer.Welcome({7});
    const Request first = peer.ReadRequest();
    const Request second = peer.ReadRequest();
    peer.Succeed(first, MakeBytes({1}));
    peer.Succeed(second, MakeBytes({2}));
    peer.ReadToTheEnd();
}

}  // namespace client_test
