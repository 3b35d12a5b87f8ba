// The fake service of the tests of the C interface: the CDB says what it does.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "protocol/message.h"
#include "support/bytes.h"
#include "support/fake_service.h"

namespace c_api_test {

using client_test::Peer;
using client_test::Request;

constexpr std::uint32_t kCameraId = 7;

/// What the first byte of a CDB makes the fake service do.
enum Command : std::uint8_t {
    kSucceed = 1,    // the second byte is the number of KiB of the data
    kRefuse = 2,     // the camera stays
    kGone = 3,       // reports the camera gone, then refuses
    kBadAnswer = 4,  // answers a request that was never sent
    kHangUp = 5,     // closes the connection
    kHold = 6,       // answers only together with kRelease
    kRelease = 7,    // answers the held requests, then this one
};

inline Bytes DataOf(std::uint8_t kibibytes) {
    return Pattern(std::size_t{kibibytes} * 1024);
}

/// Serves one client, with camera 7.
inline void ServeCommands(Peer& peer) {
    peer.Announce(kCameraId);
    std::vector<Request> held;
    while (const std::optional<Request> next = peer.NextRequest()) {
        const Request& request = *next;
        if (request.header.bodyLength == 0) {
            peer.Refuse(request);
            continue;
        }
        const auto answer = [&peer](const Request& one) {
            peer.Succeed(one, one.header.messageType == kTransferIn
                                  ? DataOf(std::to_integer<std::uint8_t>(one.body.at(1)))
                                  : Bytes());
        };
        switch (std::to_integer<std::uint8_t>(request.body.at(0))) {
            case kRefuse:
                peer.Refuse(request);
                break;
            case kGone:
                peer.Send({kCameraDetached, kNotificationId, kCameraId, 0});
                peer.Refuse(request);
                break;
            case kBadAnswer:
                peer.Send({kTransferSucceeded, request.header.requestId + 1, kCameraId, 0});
                break;
            case kHangUp:
                peer.Close();
                return;
            case kHold:
                held.push_back(request);
                break;
            case kRelease:
                for (const Request& one : held)
                    answer(one);
                held.clear();
                answer(request);
                break;
            default:
                answer(request);
                break;
        }
    }
}

}  // namespace c_api_test
