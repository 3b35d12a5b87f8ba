// The start of the desktop application when there is no memory.

#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "guarded_heap.h"
#include "import_hook.h"
#include "in_process_service.h"
#include "server/launch_functions.h"

extern "C" {
extern decltype(&::CreateProcessAsUserW) __imp_CreateProcessAsUserW;
}

namespace {

using LaunchMemoryTest = InProcessService;

TEST_F(LaunchMemoryTest, ApplicationIsStartedThoughThereIsNoMemory) {
    ORVIK_NEEDS_GUARDED_HEAP();
    StartServer();
    PostInterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(Plug()));

    std::optional<guarded_heap::FailingAllocation> noMemory;
    std::wstring started;
    started.reserve(MAX_PATH);
    const HookedImport<&queryUserToken> query([](ULONG, HANDLE* token) {
        *token = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);  // the launch closes it
        return TRUE;
    });
    const HookedImport<&createEnvironmentBlock> environment([&](void**, HANDLE, BOOL) {
        noMemory.emplace(1);
        return TRUE;
    });
    const HookedImport<&__imp_CreateProcessAsUserW> start(
        [&](HANDLE, const wchar_t* path, wchar_t*, SECURITY_ATTRIBUTES*, SECURITY_ATTRIBUTES*, BOOL,
            DWORD, void*, const wchar_t*, STARTUPINFOW*, PROCESS_INFORMATION*) {
            noMemory.reset();
            started = path;
            return FALSE;
        });
    port.DispatchQueued();
    EXPECT_EQ(started, LR"(c:\Program Files (x86)\Orvik\Orvik.exe)");
}

}  // namespace
