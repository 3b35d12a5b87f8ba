#include "process_size.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <vector>

// After <windows.h>, whose types it uses.
#include <psapi.h>

namespace system_test {

std::size_t HandleCount(DWORD processId) {
    // What NtQuerySystemInformation returns for class 64; <winternl.h> declares neither.
    struct Entry {
        void* object;
        ULONG_PTR processId;
        ULONG_PTR handle;
        ULONG access;
        USHORT traceIndex;
        USHORT typeIndex;
        ULONG attributes;
        ULONG reserved;
    };
    using QuerySystemInformation = LONG(NTAPI*)(ULONG, void*, ULONG, ULONG*);
    const auto query = reinterpret_cast<QuerySystemInformation>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    constexpr ULONG kExtendedHandleInformation = 64;
    constexpr auto kTooSmall = static_cast<LONG>(0xC0000004);
    std::vector<std::byte> buffer(1 << 20);
    LONG status = kTooSmall;
    while ((status = query(kExtendedHandleInformation, buffer.data(),
                           static_cast<ULONG>(buffer.size()), nullptr)) == kTooSmall)
        buffer.resize(buffer.size() * 2);
    if (status < 0)
        throw std::runtime_error("cannot list the handles");
    ULONG_PTR count = 0;
    std::memcpy(&count, buffer.data(), sizeof(count));
    const auto* const entries =
        reinterpret_cast<const Entry*>(buffer.data() + 2 * sizeof(ULONG_PTR));
    return static_cast<std::size_t>(
        std::count_if(entries, entries + count,
                      [processId](const Entry& entry) { return entry.processId == processId; }));
}

std::size_t WorkingSet(HANDLE process) {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof(counters);
    if (!::GetProcessMemoryInfo(process, &counters, sizeof(counters)))
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category());
    return counters.WorkingSetSize;
}

}  // namespace system_test
