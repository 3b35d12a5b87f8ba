// The C interface: each status, the error of a thread, invalid arguments, sizes of structures, lack
// of memory.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "c_api_fixture.h"
#include "guarded_heap.h"
#include "import_hook.h"
#include "orvik/client.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::QueryServiceStatusEx) __imp_QueryServiceStatusEx;
extern decltype(&::OpenServiceW) __imp_OpenServiceW;
}

namespace {

using namespace c_api_test;

class CApiErrors : public CApi {
protected:
    orvik_status ConnectTo(const char* pipeName, std::uint32_t timeout, bool checkServer = false) {
        orvik_options other = options;
        other.pipe = pipeName;
        other.timeout_ms = timeout;
        other.check_server = checkServer ? 1 : 0;
        orvik_client* none = nullptr;
        const orvik_status status = orvik_client_connect(&other, &none);
        EXPECT_EQ(none, nullptr);
        return status;
    }
};

UniqueHandle MakePipe(const wchar_t* name, DWORD access) {
    return OwnFile(::CreateNamedPipeW(name, access, PIPE_TYPE_BYTE, 1, 65536, 65536, 0, nullptr));
}

constexpr char kNoPipe[] = R"(\\.\pipe\orvik-client-test-none)";

TEST_F(CApiErrors, ConnectingFailsWithTheStatusOfTheCause) {
    EXPECT_EQ(ConnectTo(kNoPipe, 100, true), ORVIK_ERROR_NOT_INSTALLED);
    EXPECT_EQ(orvik_last_error_system_code(), DWORD{ERROR_SERVICE_DOES_NOT_EXIST});
    EXPECT_EQ(ConnectTo(kNoPipe, 100), ORVIK_ERROR_STOPPED);
    EXPECT_EQ(orvik_last_error_system_code(), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_NE(std::string(orvik_last_error_text()).find("(error 2)"), std::string::npos)
        << orvik_last_error_text();
    EXPECT_EQ(ConnectTo(pipe.c_str(), 100, true), ORVIK_ERROR_WRONG_SERVER);
    EXPECT_EQ(orvik_last_error_system_code(), 0u);
    {
        const HookedImport<&__imp_OpenServiceW> open(
            [](SC_HANDLE manager, const wchar_t*, DWORD) { return manager; });
        const HookedImport<&__imp_QueryServiceStatusEx> query(
            [](SC_HANDLE, SC_STATUS_TYPE, BYTE* to, DWORD, DWORD*) {
                SERVICE_STATUS_PROCESS status{};
                status.dwCurrentState = SERVICE_START_PENDING;
                std::memcpy(to, &status, sizeof(status));
                return TRUE;
            });
        EXPECT_EQ(ConnectTo(kNoPipe, 50, true), ORVIK_ERROR_STARTING);
    }
    const UniqueHandle outbound =
        MakePipe(LR"(\\.\pipe\orvik-client-test-denied)", PIPE_ACCESS_OUTBOUND);
    EXPECT_EQ(ConnectTo(R"(\\.\pipe\orvik-client-test-denied)", 100), ORVIK_ERROR_ACCESS_DENIED);
    const wchar_t busy[] = LR"(\\.\pipe\orvik-client-test-busy)";
    const UniqueHandle only = MakePipe(busy, PIPE_ACCESS_DUPLEX);
    const UniqueHandle other = OwnFile(
        ::CreateFileW(busy, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(other);
    EXPECT_EQ(ConnectTo(R"(\\.\pipe\orvik-client-test-busy)", 100), ORVIK_ERROR_BUSY);
    const HookedImport<&__imp_CreateFileW> create(
        [](const wchar_t*, DWORD, DWORD, SECURITY_ATTRIBUTES*, DWORD, DWORD, HANDLE) {
            ::SetLastError(ERROR_GEN_FAILURE);
            return INVALID_HANDLE_VALUE;
        });
    EXPECT_EQ(ConnectTo(kNoPipe, 100), ORVIK_ERROR_SYSTEM);
    EXPECT_EQ(orvik_last_error_system_code(), DWORD{ERROR_GEN_FAILURE});
}

TEST_F(CApiErrors, TransferFailsWithTheStatusOfTheCause) {
    Connect();
    EXPECT_EQ(NoData(kRefuse), ORVIK_ERROR_REFUSED);
    EXPECT_STREQ(orvik_last_error_text(), "the command failed on camera 7");
    EXPECT_EQ(NoData(kHold, 20), ORVIK_ERROR_TIMED_OUT);
    EXPECT_EQ(NoData(kGone), ORVIK_ERROR_CAMERA_GONE);
    EXPECT_EQ(NoData(kSucceed), ORVIK_ERROR_NO_SUCH_CAMERA);
    Close();
    Connect();
    EXPECT_EQ(NoData(kBadAnswer), ORVIK_ERROR_BAD_ANSWER);
    EXPECT_EQ(NoData(kSucceed), ORVIK_ERROR_SERVICE_GONE);
}

TEST_F(CApiErrors, ErrorBelongsToItsThread) {
    EXPECT_EQ(ConnectTo(kNoPipe, 100), ORVIK_ERROR_STOPPED);
    const std::string text = orvik_last_error_text();
    std::thread([] {
        EXPECT_STREQ(orvik_last_error_text(), "");
        EXPECT_EQ(orvik_last_error_system_code(), 0u);
        EXPECT_EQ(orvik_canceller_cancel(nullptr), ORVIK_ERROR_INVALID_ARGUMENT);
        EXPECT_STREQ(orvik_last_error_text(), "canceller must not be NULL");
    }).join();
    EXPECT_EQ(orvik_last_error_text(), text);
    EXPECT_EQ(orvik_last_error_system_code(), DWORD{ERROR_FILE_NOT_FOUND});
    Connect();
    EXPECT_EQ(NoData(kSucceed), ORVIK_OK);
    EXPECT_EQ(orvik_last_error_text(), text) << "a call that succeeds leaves it";
}

TEST(CApiStatus, TextsAreThoseOfTheCppLibrary) {
    for (int kind = 0; kind <= static_cast<int>(orvik::ErrorKind::kCameraGone); ++kind) {
        const std::string_view text = ToString(static_cast<orvik::ErrorKind>(kind));
        EXPECT_EQ(orvik_status_text(kind + 1), text);
    }
    EXPECT_STREQ(orvik_status_text(ORVIK_OK), "success");
    EXPECT_STREQ(orvik_status_text(ORVIK_ERROR_OUT_OF_MEMORY), "out of memory");
    EXPECT_STREQ(orvik_status_text(ORVIK_ERROR_BUFFER_TOO_SMALL), "buffer too small");
    EXPECT_STREQ(orvik_status_text(ORVIK_ERROR_NOT_OUTSTANDING), "not outstanding");
    EXPECT_STREQ(orvik_status_text(ORVIK_ERROR_NOT_OUTSTANDING + 1), "unknown");
    EXPECT_STREQ(orvik_status_text(-1), "unknown");
    EXPECT_STREQ(orvik_version(), ORVIK_API_VERSION);
}

TEST_F(CApiErrors, NullIsAnInvalidArgument) {
    Connect();
    const std::uint8_t cdb[] = {kSucceed};
    std::uint32_t number = 0;
    orvik_sense sense{};
    orvik_inquiry inquiry{};
    orvik_capacity capacity{};
    sense.size = sizeof(sense);
    Completion never;
    const auto done = Completion::Call;
    const std::uint32_t t = kMilliseconds;
    const orvik_status results[] = {
        orvik_canceller_create(nullptr),
        orvik_canceller_cancel(nullptr),
        orvik_options_init(nullptr, sizeof(orvik_options)),
        orvik_client_connect(&options, nullptr),
        orvik_client_open(&options, nullptr),
        orvik_client_cameras(nullptr, nullptr, 0, &number),
        orvik_client_cameras(client, nullptr, 1, &number),
        orvik_client_cameras(client, nullptr, 0, nullptr),
        orvik_client_round_trip(nullptr, t),
        orvik_transfer_in(nullptr, camera, cdb, 1, nullptr, 0, &number, t),
        orvik_transfer_in(client, camera, nullptr, 1, nullptr, 0, &number, t),
        orvik_transfer_in(client, camera, cdb, 1, nullptr, 1, &number, t),
        orvik_transfer_in(client, camera, cdb, 1, nullptr, 0, nullptr, t),
        orvik_transfer_out(nullptr, camera, cdb, 1, nullptr, 0, t),
        orvik_transfer_out(client, camera, nullptr, 1, nullptr, 0, t),
        orvik_transfer_out(client, camera, cdb, 1, nullptr, 1, t),
        orvik_transfer_no_data(nullptr, camera, cdb, 1, t),
        orvik_transfer_no_data(client, camera, nullptr, 0, t),
        orvik_transfer_no_data(client, camera, cdb, 0, t),
        orvik_transfer_no_data(client, camera, cdb, ORVIK_CDB_LIMIT + 1, t),
        orvik_start_in(nullptr, camera, cdb, 1, done, &never, t, nullptr),
        orvik_start_in(client, camera, nullptr, 1, done, &never, t, nullptr),
        orvik_start_in(client, camera, cdb, 1, nullptr, &never, t, nullptr),
        orvik_start_out(nullptr, camera, cdb, 1, nullptr, 0, done, &never, t, nullptr),
        orvik_start_out(client, camera, cdb, 1, nullptr, 1, done, &never, t, nullptr),
        orvik_start_no_data(nullptr, camera, cdb, 1, done, &never, t, nullptr),
        orvik_request_cancel(nullptr),
        orvik_get_sense(nullptr, camera, &sense, t),
        orvik_get_sense(client, camera, nullptr, t),
        orvik_cdb_inquiry(nullptr),
        orvik_cdb_test_unit_ready(nullptr),
        orvik_cdb_read_capacity(nullptr),
        orvik_cdb_request_sense(nullptr),
        orvik_cdb_read6(0, 1, nullptr),
        orvik_cdb_write6(0, 1, nullptr),
        orvik_decode_inquiry(nullptr, 36, &inquiry),
        orvik_decode_inquiry(cdb, 1, nullptr),
        orvik_decode_capacity(nullptr, 8, &capacity),
        orvik_decode_capacity(cdb, 1, nullptr),
        orvik_decode_sense(nullptr, 18, &sense),
        orvik_decode_sense(cdb, 1, nullptr),
    };
    for (std::size_t i = 0; i < std::size(results); ++i)
        EXPECT_EQ(results[i], ORVIK_ERROR_INVALID_ARGUMENT) << "call " << i;
    EXPECT_EQ(never.calls, 0);
}

TEST(CApiSizes, SmallerThanTheFirstVersionIsRefusedAndGreaterIsAccepted) {
    struct {
        orvik_options known;
        std::uint64_t later = 5;
    } options;
    EXPECT_EQ(orvik_options_init(&options.known, sizeof(orvik_options) - 1),
              ORVIK_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(orvik_options_init(&options.known, sizeof(options)), ORVIK_OK);
    EXPECT_EQ(options.known.size, sizeof(options));
    EXPECT_EQ(options.later, 0u);
    EXPECT_EQ(options.known.timeout_ms, ORVIK_CONNECT_TIMEOUT);
    EXPECT_EQ(options.known.gone_wait_ms, 100u);
    EXPECT_EQ(options.known.transfer_out_limit, ORVIK_TRANSFER_OUT_LIMIT);
    EXPECT_EQ(options.known.check_server, 1u);
    EXPECT_EQ(options.known.pipe, nullptr);
    EXPECT_EQ(options.known.canceller, nullptr);
    EXPECT_EQ(options.known.on_event, nullptr);
    EXPECT_EQ(options.known.user, nullptr);
    options.known.check_server = 0;
    options.known.pipe = kNoPipe;
    orvik_client* client = nullptr;
    EXPECT_EQ(orvik_client_connect(&options.known, &client), ORVIK_ERROR_STOPPED);
    options.known.size = sizeof(orvik_options) - 1;
    EXPECT_EQ(orvik_client_connect(&options.known, &client), ORVIK_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(orvik_client_open(&options.known, &client), ORVIK_ERROR_INVALID_ARGUMENT);

    struct {
        orvik_sense known{};
        std::uint64_t later = 5;
    } sense;
    Bytes data(18);
    data[0] = std::byte{0x70};
    const auto length = static_cast<std::uint32_t>(data.size());
    sense.known.size = sizeof(orvik_sense) - 1;
    EXPECT_EQ(orvik_decode_sense(data.data(), length, &sense.known), ORVIK_ERROR_INVALID_ARGUMENT);
    EXPECT_STREQ(sense.known.text, "");
    sense.known.size = sizeof(sense);
    EXPECT_EQ(orvik_decode_sense(data.data(), length, &sense.known), ORVIK_OK);
    EXPECT_EQ(sense.known.size, sizeof(sense));
    EXPECT_EQ(sense.later, 5u);
    orvik_inquiry inquiry{};
    inquiry.size = sizeof(inquiry) - 1;
    EXPECT_EQ(orvik_decode_inquiry(data.data(), length, &inquiry), ORVIK_ERROR_INVALID_ARGUMENT);
    orvik_capacity capacity{};
    capacity.size = sizeof(capacity) - 1;
    EXPECT_EQ(orvik_decode_capacity(data.data(), length, &capacity), ORVIK_ERROR_INVALID_ARGUMENT);
}

/// Fails each allocation of the calling thread in turn, until `call` succeeds.
template <typename Function>
void ExpectOutOfMemory(Function call) {
    for (std::size_t number = 1;; ++number) {
        ASSERT_LT(number, 100u);
        orvik_status status = ORVIK_OK;
        {
            const guarded_heap::FailingAllocation failing(number);
            status = call();
            if (!failing.HasFailed())
                break;
        }
        ASSERT_EQ(status, ORVIK_ERROR_OUT_OF_MEMORY) << number << ": " << orvik_last_error_text();
        EXPECT_STREQ(orvik_last_error_text(), "out of memory");
        EXPECT_EQ(orvik_last_error_system_code(), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    }
}

TEST_F(CApiErrors, LackOfMemoryIsAStatus) {
    ORVIK_NEEDS_GUARDED_HEAP();
    Connect();
    ASSERT_EQ(NoData(kSucceed), ORVIK_OK);
    ExpectOutOfMemory([&] {
        orvik_canceller* canceller = nullptr;
        const orvik_status status = orvik_canceller_create(&canceller);
        EXPECT_EQ(canceller != nullptr, status == ORVIK_OK);
        orvik_canceller_close(canceller);
        return status;
    });
    ExpectOutOfMemory([&] {
        std::uint32_t count = 0;
        orvik_camera one = 0;
        return orvik_client_cameras(client, &one, 1, &count);
    });
    orvik_status status = ORVIK_OK;
    {
        const guarded_heap::FailingAllocation failing(1);
        status = NoData(kSucceed);
        EXPECT_TRUE(failing.HasFailed());
    }
    EXPECT_EQ(status, ORVIK_ERROR_OUT_OF_MEMORY);
    Completion completion;
    for (std::size_t number = 1; number <= 4; ++number) {
        orvik_request* request = nullptr;
        {
            const guarded_heap::FailingAllocation failing(number);
            status = Start(kSucceed, completion, &request);
            EXPECT_TRUE(failing.HasFailed());
        }
        EXPECT_EQ(status, ORVIK_ERROR_OUT_OF_MEMORY) << number;
        EXPECT_EQ(request, nullptr);
    }
    EXPECT_EQ(NoData(kSucceed), ORVIK_OK);
    EXPECT_EQ(completion.calls, 0);
}

/// Fails each allocation of the calling thread in turn, until `make` makes a client.
template <typename Make>
void ExpectNoClientWithoutMemory(Make make, const orvik_options& options) {
    for (std::size_t number = 1;; ++number) {
        ASSERT_LT(number, 100u);
        orvik_client* made = nullptr;
        orvik_status status = ORVIK_OK;
        bool lacked = false;
        {
            const guarded_heap::FailingAllocation failing(number);
            status = make(&options, &made);
            lacked = failing.HasFailed();
        }
        if (!lacked) {
            EXPECT_EQ(status, ORVIK_OK);
            orvik_client_close(made);
            break;
        }
        EXPECT_EQ(made, nullptr) << number;
        const std::string text = orvik_last_error_text();
        const bool noThread = text.find("cannot start") == 0;
        EXPECT_EQ(status, noThread ? ORVIK_ERROR_SYSTEM : ORVIK_ERROR_OUT_OF_MEMORY)
            << number << ": " << text;
    }
}

TEST_F(CApiErrors, LackOfMemoryMakesNoClient) {
    ORVIK_NEEDS_GUARDED_HEAP();
    ExpectNoClientWithoutMemory(orvik_client_open, options);
    ExpectNoClientWithoutMemory(orvik_client_connect, options);
}

TEST(CApiStatus, ErrorOfAThreadThatHasNoMemoryForItSaysSo) {
    ORVIK_NEEDS_GUARDED_HEAP();
    std::thread([] {
        orvik_status status = ORVIK_OK;
        {
            // The text of the exception, the exception's own block may come from another heap.
            const auto failing = guarded_heap::FailingAllocation::OfSize(1028);
            status = orvik_canceller_cancel(nullptr);
            EXPECT_TRUE(failing.HasFailed());
        }
        EXPECT_EQ(status, ORVIK_ERROR_INVALID_ARGUMENT);
        EXPECT_STREQ(orvik_last_error_text(), "out of memory");
        EXPECT_EQ(orvik_canceller_cancel(nullptr), ORVIK_ERROR_INVALID_ARGUMENT);
        EXPECT_STREQ(orvik_last_error_text(), "canceller must not be NULL");
    }).join();
}

}  // namespace
