#include "watching_test.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace system_test {

// Windows may take a moment until it tells a window that has just asked for it, and nothing says
// when. So cameras are plugged until one is seen; then one more, which is known by its name: all
// before it have been seen or never will be.
std::uint32_t WaitUntilServiceHears(vcam::Bus& bus, std::uint32_t present) {
    constexpr std::size_t kMostTries = 100;
    constexpr std::chrono::milliseconds kTry{100};
    const std::string kLast = "Last";

    RawClient client;
    for (std::uint32_t id = 1; id <= present; ++id)
        client.ReceiveMessage();
    std::vector<std::unique_ptr<PluggedCamera>> cameras;
    std::uint32_t newest = 0;  // identifier
    std::uint32_t unanswered = 0;
    bool lastSeen = false;
    while (!lastSeen || unanswered != 0) {
        std::optional<Message> message;
        if (newest != 0)
            message = client.ReceiveMessage();
        else if (!(message = client.ReceiveMessageWithin(kTry))) {
            if (cameras.size() == kMostTries)
                throw std::runtime_error("the service hears nothing of cameras that are plugged");
            cameras.push_back(std::make_unique<PluggedCamera>(bus));
            continue;
        }
        if (message->header.messageType == kCameraAttached) {
            if (newest == 0)
                cameras.push_back(std::make_unique<PluggedCamera>(bus, WithProduct(kLast)));
            newest = message->header.cameraId;
            client.SendRequest(kTransferIn, newest, newest, Inquiry());
            ++unanswered;
        } else {
            const std::string_view answer(reinterpret_cast<const char*>(message->body.data()),
                                          message->body.size());
            lastSeen = lastSeen || answer.find(kLast) != answer.npos;
            --unanswered;
        }
    }
    cameras.clear();
    for (std::uint32_t id = present + 1; id <= newest; ++id)
        client.ReceiveMessage();  // the cameras seen are gone
    client.Leave();
    return newest + 1;
}

WatchingTest::WatchingTest(const std::wstring& path)
    : service(GetParam(), path),
      nextId(WaitUntilServiceHears(bus, 0)) {}

void WatchingTest::ExpectAttached(RawClient& client, std::uint32_t count) {
    for (; count != 0; --count)
        EXPECT_EQ(client.ReceiveMessage(), Attached(nextId++));
}

void WatchingTest::Leave(RawClient& client, std::uint32_t cameraId) {
    EXPECT_EQ(client.Ask(kTransferNoData, 0, cameraId, TestUnitReady()), Succeeded(0, cameraId));
    client.Leave();
}

}  // namespace system_test
