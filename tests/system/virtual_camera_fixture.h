// What the tests of the virtual camera share: pass-through requests and the fixture.
#pragma once

#include "virtual_camera.h"

#include <windows.h>

#include <winioctl.h>
// After winioctl.h, whose CTL_CODE it uses.
#include <ntddscsi.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "windows/unique_handle.h"

namespace camera_test {

inline constexpr std::chrono::seconds kPatience{30};

inline constexpr std::size_t kBlock = vcam::kBlockSize;

inline constexpr std::size_t kDataOffset = 65;  // where the service puts the data: odd, on purpose
inline constexpr std::uint8_t kGood = 0;
inline constexpr std::uint8_t kCheckCondition = 2;

inline UniqueHandle Open(const std::wstring& path, DWORD access = GENERIC_READ | GENERIC_WRITE) {
    return OwnFile(::CreateFileW(path.c_str(), access, 0, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_OVERLAPPED, nullptr));
}

inline std::array<std::uint8_t, 16> Cdb(std::initializer_list<std::uint8_t> bytes) {
    std::array<std::uint8_t, 16> cdb = {};
    std::copy(bytes.begin(), bytes.end(), cdb.begin());
    return cdb;
}

inline std::array<std::uint8_t, 16> Read6(std::uint32_t block, std::uint8_t count) {
    return Cdb({0x08, static_cast<std::uint8_t>(block >> 16), static_cast<std::uint8_t>(block >> 8),
                static_cast<std::uint8_t>(block), count, 0});
}

inline std::array<std::uint8_t, 16> Write6(std::uint32_t block, std::uint8_t count) {
    std::array<std::uint8_t, 16> cdb = Read6(block, count);
    cdb[0] = 0x0a;
    return cdb;
}

/// One pass-through request, laid out as the service does it. Must not be destroyed while pending.
class Transfer {
public:
    Transfer(UCHAR direction, const std::array<std::uint8_t, 16>& cdb, std::size_t length)
        : block(kDataOffset + length),
          event(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        SCSI_PASS_THROUGH& header = Header();
        header.Length = sizeof(SCSI_PASS_THROUGH);
        header.CdbLength = 8;
        header.DataIn = direction;
        header.DataTransferLength = static_cast<ULONG>(length);
        header.TimeOutValue = 100;
        header.DataBufferOffset = kDataOffset;
        std::copy(cdb.begin(), cdb.end(), header.Cdb);
        header.ScsiStatus = 0xee;  // the driver writes it
        overlapped.hEvent = event.get();
    }

    SCSI_PASS_THROUGH& Header() { return *reinterpret_cast<SCSI_PASS_THROUGH*>(block.data()); }
    std::uint8_t* Data() { return block.data() + kDataOffset; }

    /// Returns the error of the call: 0, ERROR_IO_PENDING or what it failed with.
    DWORD Issue(HANDLE onDevice) {
        return Issue(onDevice, static_cast<DWORD>(block.size()), static_cast<DWORD>(block.size()));
    }
    DWORD Issue(HANDLE onDevice, DWORD inputLength, DWORD outputLength) {
        device = onDevice;
        if (::DeviceIoControl(device, IOCTL_SCSI_PASS_THROUGH, block.data(), inputLength,
                              block.data(), outputLength, nullptr, &overlapped))
            return ERROR_SUCCESS;
        return ::GetLastError();
    }

    bool IsPending() const { return ::WaitForSingleObject(event.get(), 0) == WAIT_TIMEOUT; }

    /// Waits for the end; returns its error. `returned` has the byte count then.
    DWORD Await() {
        const DWORD waited = ::WaitForSingleObject(
            event.get(), static_cast<DWORD>(std::chrono::milliseconds(kPatience).count()));
        if (waited != WAIT_OBJECT_0)
            return ERROR_TIMEOUT;
        return ::GetOverlappedResult(device, &overlapped, &returned, FALSE) ? ERROR_SUCCESS
                                                                            : ::GetLastError();
    }

    /// Issues and waits.
    DWORD Run(HANDLE onDevice) {
        const DWORD error = Issue(onDevice);
        return error == ERROR_SUCCESS || error == ERROR_IO_PENDING ? Await() : error;
    }

    DWORD DataReturned() const { return returned - static_cast<DWORD>(kDataOffset); }

    OVERLAPPED overlapped = {};
    DWORD returned = 0;
    std::vector<std::uint8_t> block;

private:
    UniqueHandle event;
    HANDLE device = nullptr;
};

inline Transfer ReadIn(const std::array<std::uint8_t, 16>& cdb, std::size_t length = 65536) {
    return {SCSI_IOCTL_DATA_IN, cdb, length};
}

/// A function of ntdll that has no import library, or null.
template <typename Function>
Function NtFunction(const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), name)));
}

inline bool RunsOnWine() {
    return NtFunction<void*>("wine_get_version") != nullptr;
}

/// The error code of the std::system_error that `action` throws; 0 if it throws none.
inline int CodeThrownBy(const std::function<void()>& action) {
    try {
        action();
        return 0;
    } catch (const std::system_error& error) {
        return error.code().value();
    }
}

class VirtualCamera : public ::testing::Test {
protected:
    void SetUp() override { bus.UnplugAll(); }
    void TearDown() override { bus.UnplugAll(); }

    /// Plugs a camera and opens it.
    void PlugAndOpen(const vcam::PlugOptions& options = {}) {
        id = bus.Plug(options);
        device = Open(bus.InterfacePath(id));
        ASSERT_TRUE(device) << ::GetLastError();
    }

    void Set(const vcam::Behaviour& behaviour) { bus.SetBehaviour(id, behaviour); }

    void SetHold() {
        vcam::Behaviour behaviour;
        behaviour.hold = true;
        Set(behaviour);
    }

    vcam::Bus bus;
    vcam::CameraId id = 0;
    UniqueHandle device;
};

}  // namespace camera_test
