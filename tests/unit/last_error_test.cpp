// What a handle's value and the last error are at moments at which they are easily lost: behind a
// line of output, behind a free(), behind a close.
#include <cstdint>
#include <memory>
#include <streambuf>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/device.h"
#include "device/io_operation.h"
#include "device/windows_exception.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "service/dispatcher.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::CreateIoCompletionPort) __imp_CreateIoCompletionPort;
extern decltype(&::DeviceIoControl) __imp_DeviceIoControl;
}

namespace {

/// Standard output that changes the last error, as a console or a file may.
class ChangingOutput : public std::streambuf {
public:
    ChangingOutput() : previous(std::cout.rdbuf(this)) {}
    ~ChangingOutput() override { std::cout.rdbuf(previous); }

    int writes = 0;

protected:
    int_type overflow(int_type character) override {
        Change();
        return traits_type::not_eof(character);
    }
    std::streamsize xsputn(const char* /*text*/, std::streamsize size) override {
        Change();
        return size;
    }
    int sync() override {
        Change();
        return 0;
    }

private:
    void Change() {
        ++writes;
        ::SetLastError(ERROR_INVALID_FUNCTION);
    }

    std::streambuf* previous;
};

class LastErrorTest : public InProcessService {};

TEST_F(LastErrorTest, HandlerOfAFailedPacketFindsItsErrorWhateverTheLinesAboveItChange) {
    const HANDLE pipe = ::CreateNamedPipeW(LR"(\\.\pipe\orvik_last_error_test)",
                                           PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                           PIPE_TYPE_BYTE, 1, 0, 0, 0, nullptr);
    const UniqueHandle pipeOwner(pipe);
    UniqueHandle client(::CreateFileW(LR"(\\.\pipe\orvik_last_error_test)", GENERIC_READ, 0,
                                      nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_EQ(::CreateIoCompletionPort(pipe, port.Get(), 1, 0), port.Get());
    DWORD found = 0;
    IoOperation operation{[&found](IoOperation*) { found = ::GetLastError(); }};
    char byte = 0;
    ASSERT_FALSE(::ReadFile(pipe, &byte, 1, nullptr, &operation.overlapped));
    client.reset();
    const ChangingOutput changing;
    EXPECT_TRUE(DispatchCompletion(port.Get()));
    EXPECT_GT(changing.writes, 0);
    EXPECT_EQ(found, static_cast<DWORD>(ERROR_BROKEN_PIPE));
}

TEST_F(LastErrorTest, ExceptionOfAFailedWaitHasTheWaitsErrorWhateverTheLineAboveItChanges) {
    const HANDLE closed = ::CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 1);
    ::CloseHandle(closed);
    const ChangingOutput changing;
    try {
        DispatchCompletion(closed);
        FAIL() << "no exception";
    } catch (const WindowsException& exception) {
        EXPECT_EQ(std::string(exception.what()).find("GetLastError() = 0x6 ("), 0u)
            << exception.what();
    }
}

TEST_F(LastErrorTest, FailedTransferThrowsTheCallsErrorAndNotThatOfFreeingItsBlock) {
    const vcam::CameraId camera = Plug();
    Device device(bus.InterfacePath(camera), 1, port.Get());
    device.Open();
    bus.SetBehaviour(camera, FailsAtOnce(kStatusIoDeviceError));
    IoOperation operation{IoCallback()};
    const TransferRequest request{kTransferNoData, 1, 1, 16, {}};
    try {
        device.Transfer(&operation, &request, nullptr, 0);
        FAIL() << "no exception";
    } catch (const WindowsException& exception) {
        EXPECT_EQ(std::string(exception.what())
                      .find("DeviceIoControl() failed.  GetLastError() = "
                            "0x45d ("),
                  0u)
            << exception.what();
    }
}

TEST_F(LastErrorTest, DeviceKeepsItsHandlesValueBehindTheLastClose) {
    const vcam::CameraId camera = Plug();
    Device device(bus.InterfacePath(camera), 1, port.Get());
    HANDLE opened = nullptr;
    {
        using Create = HookedImport<&__imp_CreateFileW>;
        const Create create([&](const wchar_t* path, DWORD access, DWORD share,
                                SECURITY_ATTRIBUTES* security, DWORD how, DWORD flags,
                                HANDLE like) {
            opened = Create::Original(path, access, share, security, how, flags, like);
            return opened;
        });
        device.Open();
    }
    device.Close();
    HANDLE used = nullptr;
    const HookedImport<&__imp_DeviceIoControl> control(
        [&](HANDLE handle, DWORD, void*, DWORD, void*, DWORD, DWORD*, OVERLAPPED*) -> BOOL {
            used = handle;
            ::SetLastError(ERROR_INVALID_HANDLE);
            return FALSE;
        });
    IoOperation operation{IoCallback()};
    const TransferRequest request{kTransferNoData, 1, 1, 16, {}};
    EXPECT_THROW(device.Transfer(&operation, &request, nullptr, 0), WindowsException);
    EXPECT_EQ(used, opened);
}

TEST_F(LastErrorTest, KeyOfACameraIsTheLowHalfOfItsHandlePlus10000In32Bits) {
    const struct {
        std::uintptr_t handle;
        ULONG_PTR key;
    } cases[] = {
        {0x1F4, 0x2904},       {0xFFFFD8EF, 0xFFFFFFFF}, {0xFFFFD8F0, 0},  // wraps
        {0xFFFFF000, 0x1710},                                              // wraps
        {0x1000001F4, 0x2904},  // the high half has no part in it
        {0x1FFFFF000, 0x1710},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.handle);
        const auto handle = reinterpret_cast<HANDLE>(one.handle);
        ULONG_PTR key = 1;
        int closed = 0;
        const HookedImport<&__imp_CreateFileW> create([&](const wchar_t*, DWORD, DWORD,
                                                          SECURITY_ATTRIBUTES*, DWORD, DWORD,
                                                          HANDLE) { return handle; });
        const HookedImport<&__imp_CreateIoCompletionPort> bind(
            [&](HANDLE file, HANDLE existing, ULONG_PTR packetKey, DWORD) {
                EXPECT_EQ(file, handle);
                key = packetKey;
                return existing;
            });
        using Close = HookedImport<&__imp_CloseHandle>;
        const Close close([&](HANDLE file) {
            closed += file == handle ? 1 : 0;
            return file == handle || Close::Original(file);
        });
        {
            Device device(L"a camera", 1, port.Get());
            device.Open();
        }
        EXPECT_EQ(key, one.key);
        EXPECT_EQ(closed, 1);
    }
}

}  // namespace
