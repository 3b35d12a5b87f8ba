// Opening, closing and binding a camera.

#include <cstdint>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "device/windows_exception.h"
#include "device_fixture.h"
#include "import_hook.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::CreateFileW) __imp_CreateFileW;
extern decltype(&::CreateIoCompletionPort) __imp_CreateIoCompletionPort;
}

namespace {

/// Sees how the device is opened and bound.
class OpenCalls {
public:
    OpenCalls() : create(&__imp_CreateFileW, Create), bind(&__imp_CreateIoCompletionPort, Bind) {
        current = this;
    }
    ~OpenCalls() { current = nullptr; }

    int creations = 0;
    DWORD access = 0;
    DWORD share = 1;
    DWORD disposition = 0;
    DWORD flags = 0;
    HANDLE handle = nullptr;
    HANDLE port = nullptr;
    ULONG_PTR key = 0;

    HANDLE madeUp = nullptr;  // opened and bound in place of a real handle, unless null

private:
    static HANDLE WINAPI Create(LPCWSTR path, DWORD desired, DWORD sharing,
                                LPSECURITY_ATTRIBUTES security, DWORD how, DWORD attributes,
                                HANDLE pattern) {
        ++current->creations;
        current->access = desired;
        current->share = sharing;
        current->disposition = how;
        current->flags = attributes;
        if (current->madeUp != nullptr)
            return current->madeUp;
        return current->create.Original()(path, desired, sharing, security, how, attributes,
                                          pattern);
    }
    static HANDLE WINAPI Bind(HANDLE file, HANDLE existing, ULONG_PTR packetKey, DWORD threads) {
        current->handle = file;
        current->port = existing;
        current->key = packetKey;
        if (current->madeUp != nullptr)
            return existing;
        return current->bind.Original()(file, existing, packetKey, threads);
    }

    static inline OpenCalls* current = nullptr;
    ImportHook<decltype(&::CreateFileW)> create;
    ImportHook<decltype(&::CreateIoCompletionPort)> bind;
};

TEST_F(DeviceTest, OpensAreCounted) {
    Device device = MakeDevice();
    EXPECT_EQ(Opens(), 0u) << "made without a system call";
    device.Open();
    device.Open();
    EXPECT_EQ(Opens(), 1u);
    device.Close();
    EXPECT_EQ(Closes(), 0u);
    Send(device, Request(3, 512), {}, 512);
    device.Close();
    EXPECT_EQ(Closes(), 1u);
    device.Open();
    EXPECT_EQ(Opens(), 2u) << "a third open opens a new handle";
    Send(device, Request(3, 512), {}, 512);
    device.Close();
    EXPECT_EQ(Closes(), 2u);
}

TEST_F(DeviceTest, OpenIsExclusiveOverlappedAndForReadingAndWriting) {
    Device device = MakeDevice();
    const OpenCalls calls;
    device.Open();
    EXPECT_EQ(calls.creations, 1);
    EXPECT_EQ(calls.access, 0xC0000000u);
    EXPECT_EQ(calls.share, 0u);
    EXPECT_EQ(calls.disposition, static_cast<DWORD>(OPEN_EXISTING));
    EXPECT_EQ(calls.flags, 0x40000000u);
    EXPECT_EQ(calls.port, port.Get());
}

TEST_F(DeviceTest, PacketsComeUnderTheHandlesLowPartPlus10000) {
    Device device = MakeDevice();
    HANDLE handle = nullptr;
    {
        const OpenCalls calls;
        device.Open();
        handle = calls.handle;
        // 0x1F4 (500) gives 0x2904 (10500).
        EXPECT_EQ(calls.key,
                  static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(handle)) + 10000u);
    }
    std::uint64_t key = 0;
    auto* const operation = new IoOperation([&key](IoOperation* finished) {
        key = finished->completionKey;
        DiscardOperation(finished);
    });
    const TransferRequest request = Request(4, 0);
    device.Transfer(operation, &request, nullptr, 0);
    port.DispatchUntil("the transfer", [&key] { return key != 0; });
    EXPECT_EQ(key, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(handle)) + 10000u);
}

TEST_F(DeviceTest, KeyIsASumOf32Bits) {
    OpenCalls calls;
    calls.madeUp = reinterpret_cast<HANDLE>(std::uintptr_t{0x1'FFFF'E000});
    Device device = MakeDevice();
    device.Open();
    EXPECT_EQ(calls.key, 1808u);  // 0xFFFFE000 + 10000 is 0x100000710
}

TEST_F(DeviceTest, DestructorClosesWhateverTheCount) {
    {
        Device device = MakeDevice();
        for (int count = 0; count < 5; ++count)
            device.Open();
    }
    EXPECT_EQ(Opens(), 1u);
    EXPECT_EQ(Closes(), 1u);
}

TEST_F(DeviceTest, CloseOfWhatIsNotOpenWrapsTheCountAndTheDestructorStillReturnsAtOnce) {
    const auto start = std::chrono::steady_clock::now();
    {
        Device device = MakeDevice();
        device.Close();  // the count is four thousand million now
        device.Open();   // counts only: wraps to 0
        EXPECT_EQ(Opens(), 0u);
        device.Open();
        EXPECT_EQ(Opens(), 1u) << "a count of 0 opens";
        device.Close();
        EXPECT_EQ(Closes(), 1u);
        device.Close();
        EXPECT_EQ(Closes(), 1u);
    }
    // One by one, those closes take many seconds.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(Opens(), Closes());
}

// By then the value may be that of another handle.
TEST_F(DeviceTest, ExtraCloseDoesNotCloseTheValueOfTheHandleAgain) {
    const OpenCalls calls;
    Device device = MakeDevice();
    device.Open();
    int closes = 0;
    using CloseHook = HookedImport<&__imp_CloseHandle>;
    const CloseHook close([&](HANDLE handle) {
        closes += handle == calls.handle ? 1 : 0;
        return CloseHook::Original(handle);
    });
    device.Close();
    EXPECT_EQ(closes, 1);
    device.Close();
    EXPECT_EQ(closes, 1);
    device.Open();  // counts only: wraps to 0, so that the destructor closes nothing
}

TEST_F(DeviceTest, OpenThatFailsLeavesTheCountAndCanFailAgain) {
    Device device(L"\\\\.\\no such device", 1, port.Get());
    for (int count = 0; count < 2; ++count) {
        try {
            device.Open();
            FAIL() << "no exception";
        } catch (const WindowsException& exception) {
            EXPECT_EQ(
                std::string(exception.what()).find("Device::Open() failed.  GetLastError() = 0x"),
                0u)
                << exception.what();
        }
    }
    device.Close();  // as a session does that ends then
}

TEST_F(DeviceTest, FailedBindingKeepsTheHandleAndALaterOpenOpensASecondOne) {
    // A port that is none: the camera opens, and can't be bound.
    std::uint64_t opens = 0;
    {
        Device device(bus.InterfacePath(camera), 1, reinterpret_cast<HANDLE>(0x7FFFFFF0));
        for (std::uint64_t count = 1; count <= 2; ++count) {
            try {
                device.Open();
                FAIL() << "no exception";
            } catch (const WindowsException& exception) {
                EXPECT_EQ(std::string(exception.what())
                              .find("Failed to device to IOCompletionPort.  GetLastError() = 0x"),
                          0u)
                    << exception.what();
            }
            EXPECT_EQ(Opens(), count);
            EXPECT_EQ(Closes(), 0u) << "the handle was tidied away";
        }
        opens = Opens();
    }
    EXPECT_EQ(Opens(), opens);
    EXPECT_EQ(Closes(), 0u) << "a count of 0 closes nothing";
    // Both handles are left to the process, so the camera can't be seen closed at the end.
    LeaveOpen();
}

TEST_F(DeviceTest, KeepsItsIdentifierAndPath) {
    const Device device(L"\\\\?\\some#path", 0xFFFFFFFE, nullptr);
    EXPECT_EQ(device.Id(), 0xFFFFFFFEu);
    EXPECT_EQ(device.Path(), L"\\\\?\\some#path");
}

}  // namespace
