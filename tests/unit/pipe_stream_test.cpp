// The client's end of the pipe.

#include <array>
#include <cstddef>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "client/event.h"
#include "client/pipe_instance.h"
#include "client/pipe_stream.h"
#include "import_hook.h"
#include "support/fake_service.h"
#include "windows/unique_handle.h"

extern "C" {
extern decltype(&::CancelIoEx) __imp_CancelIoEx;
extern decltype(&::WaitForSingleObject) __imp_WaitForSingleObject;
}

namespace {

TEST(PipeStream, DestructorWaitsUntilTheSystemNoLongerUsesTheTarget) {
    const std::wstring name = client_test::FakeService::UniqueName();
    const UniqueHandle server = OwnFile(::CreateNamedPipeW(
        name.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 65536, 65536, 0, nullptr));
    ASSERT_TRUE(server);
    const UniqueHandle readEvent = orvik::MakeEvent(true);
    std::array<std::byte, 16> target{};
    std::optional<orvik::PipeStream> stream(std::in_place, orvik::OpenPipeInstance(name),
                                            readEvent.get());
    ASSERT_FALSE(stream->Read(target)) << "a byte was read, but none was sent";

    // The cancellation has no effect, and the read ends with a byte once the destructor waits.
    bool cancelled = false;
    const HookedImport<&__imp_CancelIoEx> cancel([&](HANDLE, OVERLAPPED*) -> BOOL {
        cancelled = true;
        return TRUE;
    });
    using Wait = HookedImport<&__imp_WaitForSingleObject>;
    const Wait wait([&](HANDLE handle, DWORD milliseconds) {
        if (handle == readEvent.get()) {
            const std::byte value{0x5A};
            DWORD count = 0;
            EXPECT_TRUE(::WriteFile(server.get(), &value, 1, &count, nullptr));
        }
        return Wait::Original(handle, milliseconds);
    });
    stream.reset();
    EXPECT_TRUE(cancelled);
    EXPECT_EQ(target[0], std::byte{0x5A}) << "the destructor did not wait for the read";
}

}  // namespace
