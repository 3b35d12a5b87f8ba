// Device records that the system never sends: too short for their type, or with a name that is not
// terminated. The guarded heap stops the program when one is read beyond its end.

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "device/io_operation.h"
#include "guarded_heap.h"
#include "import_hook.h"
#include "in_process_service.h"

extern "C" decltype(&::PostQueuedCompletionStatus) __imp_PostQueuedCompletionStatus;

namespace {

class ForgedEventTest : public InProcessService {
protected:
    /// Posts the first `size` bytes of a CD-ROM interface's record with this name, and dispatches.
    void Post(WPARAM eventCode, std::size_t size, const std::wstring& name) {
        DEV_BROADCAST_DEVICEINTERFACE_W head{};
        head.dbcc_size = static_cast<DWORD>(size);
        head.dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
        head.dbcc_classguid = vcam::kCdromInterface;
        Bytes whole(kNameOffset + (name.size() + 1) * sizeof(wchar_t));
        std::memcpy(whole.data(), &head, kNameOffset);
        std::memcpy(whole.data() + kNameOffset, name.data(), name.size() * sizeof(wchar_t));
        // A block of exactly this size, so that the heap's guard page follows it.
        const auto record = std::make_unique<std::byte[]>(size);
        std::copy_n(whole.begin(), size, record.get());
        server->PostDeviceEvent(eventCode,
                                reinterpret_cast<const DEV_BROADCAST_HDR*>(record.get()));
        port.DispatchQueued();
    }

    static constexpr std::size_t kNameOffset = offsetof(DEV_BROADCAST_DEVICEINTERFACE_W, dbcc_name);
    static constexpr WPARAM kEvents[] = {DBT_DEVICEARRIVAL, DBT_DEVICEREMOVECOMPLETE};
};

TEST_F(ForgedEventTest, NameThatDoesNotEndIsDropped) {
    StartServer();
    const std::wstring path = bus.InterfacePath(Plug());
    for (const WPARAM event : kEvents)
        Post(event, kNameOffset + path.size() * sizeof(wchar_t), path);
    EXPECT_EQ(output.Wide(), L"");
    EXPECT_FALSE(server->FindDevice(kFirstCamera));
}

TEST_F(ForgedEventTest, NameThatIsCutInTheMiddleOfItsTerminatorIsDropped) {
    StartServer();
    const std::wstring path = bus.InterfacePath(Plug());
    for (const WPARAM event : kEvents)
        Post(event, kNameOffset + path.size() * sizeof(wchar_t) + 1, path);
    EXPECT_FALSE(server->FindDevice(kFirstCamera));
}

TEST_F(ForgedEventTest, NameThatEndsWithItsRecordIsTaken) {
    StartServer();
    const std::wstring path = bus.InterfacePath(Plug());
    Post(DBT_DEVICEARRIVAL, kNameOffset + (path.size() + 1) * sizeof(wchar_t), path);
    EXPECT_TRUE(server->FindDevice(kFirstCamera));
}

TEST_F(ForgedEventTest, RecordThatIsTooShortForANameIsDropped) {
    StartServer();
    for (const WPARAM event : kEvents) {
        for (std::size_t size = sizeof(DWORD); size <= kNameOffset + 1; ++size)
            Post(event, size, L"name");
    }
    EXPECT_EQ(output.Wide(), L"");
    ExpectServing();
}

TEST_F(ForgedEventTest, RecordThatSaysItIsEmptyIsDropped) {
    StartServer();
    DEV_BROADCAST_HDR record{};
    record.dbch_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    for (record.dbch_size = 0; record.dbch_size < sizeof(record); ++record.dbch_size) {
        server->PostDeviceEvent(DBT_DEVICEARRIVAL, &record);
        port.DispatchQueued();
    }
    EXPECT_EQ(output.Wide(), L"");
    ExpectServing();
}

TEST_F(ForgedEventTest, CopyOfARecordThatIsShorterThanItsHeaderEndsWithZeros) {
    ORVIK_NEEDS_GUARDED_HEAP();
    StartServer();
    DEV_BROADCAST_HDR record;
    std::memset(&record, 0x11, sizeof(record));
    for (DWORD size = 0; size < sizeof(record); ++size) {
        SCOPED_TRACE(size);
        record.dbch_size = size;
        DEV_BROADCAST_HDR expected{};
        std::memcpy(&expected, &record, size);
        const std::size_t headers = guarded_heap::LiveBlocks(sizeof(record));
        {
            using Post = HookedImport<&__imp_PostQueuedCompletionStatus>;
            const Post post([&](HANDLE to, DWORD bytes, ULONG_PTR key, OVERLAPPED* overlapped) {
                const void* const copy = IoOperation::FromOverlapped(overlapped)->transferBuffer;
                EXPECT_EQ(std::memcmp(copy, &expected, sizeof(expected)), 0);
                return Post::Original(to, bytes, key, overlapped);
            });
            server->PostDeviceEvent(DBT_DEVICEARRIVAL, &record);
        }
        EXPECT_EQ(guarded_heap::LiveBlocks(sizeof(record)), headers + 1);
        port.DispatchQueued();
    }
    EXPECT_EQ(output.Wide(), L"");
}

}  // namespace
