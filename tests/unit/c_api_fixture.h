// What the tests of the C interface with a fake service share.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "c_api_fake_service.h"
#include "orvik/orvik.h"
#include "support/client_results.h"
#include "support/deadline.h"
#include "support/fake_service.h"
#include "support/word_log.h"
#include "windows/utf.h"

namespace c_api_test {

using client_test::FakeService;
using client_test::Signal;

constexpr auto kMilliseconds = static_cast<std::uint32_t>(
    std::chrono::duration_cast<std::chrono::milliseconds>(kDeadline).count());

/// The events of a client: "connected", "+4294967303" for a camera attached, "-…" for one detached,
/// or the status of a disconnect.
class Recorder : public client_test::WordLog {
public:
    using OnEvent = std::function<void(orvik_client*, const orvik_event&)>;

    /// Is called after each event has been recorded.
    void Then(OnEvent function) { onEvent = std::move(function); }

    static void ORVIK_CALL Event(orvik_client* client, const orvik_event* event, void* user) {
        auto* const self = static_cast<Recorder*>(user);
        EXPECT_EQ(event->size, sizeof(orvik_event));
        self->Add(Word(*event));
        if (self->onEvent)
            self->onEvent(client, *event);
    }

private:
    static std::string Word(const orvik_event& event) {
        switch (event.kind) {
            case ORVIK_EVENT_CONNECTED:
                EXPECT_STREQ(event.text, "");
                return "connected";
            case ORVIK_EVENT_ATTACHED:
                return "+" + std::to_string(event.camera);
            case ORVIK_EVENT_DETACHED:
                return "-" + std::to_string(event.camera);
            default:
                EXPECT_EQ(event.kind, ORVIK_EVENT_DISCONNECTED);
                EXPECT_STRNE(event.text, "");
                return orvik_status_text(event.status);
        }
    }

    OnEvent onEvent;
};

/// The result of one asynchronous transfer.
class Completion {
public:
    using Then = std::function<void()>;

    Completion() = default;
    explicit Completion(Then function) : then(std::move(function)) {}

    static void ORVIK_CALL Call(const orvik_result* result, void* user) {
        auto* const self = static_cast<Completion*>(user);
        EXPECT_EQ(result->size, sizeof(orvik_result));
        EXPECT_EQ(result->data == nullptr, result->length == 0);
        ++self->calls;
        self->status = result->status;
        self->systemCode = result->system_code;
        self->text = result->text;
        const auto* const bytes = static_cast<const std::byte*>(result->data);
        self->data.assign(bytes, bytes + result->length);
        if (self->then)
            self->then();
        self->called.Set();
    }

    /// Waits.
    orvik_status Status() const {
        EXPECT_TRUE(called.Wait()) << "the completion was not called";
        return status;
    }

    int calls = 0;
    Bytes data;
    std::string text;
    std::uint32_t systemCode = 0;

private:
    orvik_status status = ORVIK_OK;
    Then then;
    Signal called;
};

inline orvik_options Options(const std::string& pipe) {
    orvik_options options;
    EXPECT_EQ(orvik_options_init(&options, sizeof(options)), ORVIK_OK);
    options.timeout_ms = kMilliseconds;
    options.gone_wait_ms = 50;
    options.check_server = 0;
    options.pipe = pipe.c_str();
    return options;
}

/// A fake service, and a client of it.
class CApi : public testing::TestWithParam<bool> {
protected:
    ~CApi() override { Close(); }  // before the fake service, which waits for it

    void Connect() {
        options.on_event = Recorder::Event;
        options.user = &events;
        ASSERT_EQ(orvik_client_connect(&options, &client), ORVIK_OK) << orvik_last_error_text();
        camera = kCameraId;
    }

    void Open() {
        options.on_event = Recorder::Event;
        options.user = &events;
        ASSERT_EQ(orvik_client_open(&options, &client), ORVIK_OK) << orvik_last_error_text();
        camera = (std::uint64_t{1} << 32) + kCameraId;
        ASSERT_EQ(events.WaitFor(2),
                  (std::vector<std::string>{"connected", "+" + std::to_string(camera)}));
    }

    /// The parameter says whether it is a persistent client.
    void ConnectOrOpen() {
        if (GetParam())
            Open();
        else
            Connect();
    }

    void Close() {
        orvik_client_close(client);
        client = nullptr;
    }

    orvik_status NoData(std::uint8_t command, std::uint32_t timeout = kMilliseconds) {
        return orvik_transfer_no_data(client, camera, &command, 1, timeout);
    }

    orvik_status Start(std::uint8_t command, Completion& completion,
                       orvik_request** request = nullptr,
                       std::uint32_t timeout = ORVIK_NO_TIMEOUT) {
        return orvik_start_no_data(client, camera, &command, 1, Completion::Call, &completion,
                                   timeout, request);
    }

    Recorder events;
    FakeService service{ServeCommands, {}, FakeService::UniqueName(), FakeService::kEveryClient};
    std::string pipe = ToUtf8(service.Name());
    orvik_options options = Options(pipe);
    orvik_client* client = nullptr;
    orvik_camera camera = 0;
};

inline std::string NameOfKind(const testing::TestParamInfo<bool>& persistent) {
    return persistent.param ? "Persistent" : "Plain";
}

}  // namespace c_api_test
