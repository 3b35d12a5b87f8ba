// What the tests of the client library with a fake service share.
#pragma once

#include <chrono>
#include <initializer_list>
#include <string>

#include "orvik/client.h"
#include "support/bytes.h"

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

}  // namespace client_test
