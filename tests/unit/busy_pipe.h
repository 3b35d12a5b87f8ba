// A camera pipe whose clients have to wait.
#pragma once

#include <mutex>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "import_hook.h"
#include "support/client_results.h"
#include "support/fake_service.h"
#include "windows/unique_handle.h"

extern "C" decltype(&::WaitNamedPipeW) __imp_WaitNamedPipeW;

namespace client_test {

/// Opens the pipe's free instance.
inline UniqueHandle TakeInstance(const std::wstring& pipe) {
    UniqueHandle taken = OwnFile(::CreateFileW(pipe.c_str(), GENERIC_READ | GENERIC_WRITE, 0,
                                               nullptr, OPEN_EXISTING, 0, nullptr));
    EXPECT_TRUE(taken) << ::GetLastError();
    return taken;
}

/// A pipe whose only instance has a client.
class BusyPipe {
public:
    const std::wstring& Name() const { return name; }

private:
    static UniqueHandle MakeInstance(const std::wstring& name) {
        UniqueHandle instance = OwnFile(::CreateNamedPipeW(
            name.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE, 1, 65536, 65536, 0, nullptr));
        EXPECT_TRUE(instance) << ::GetLastError();
        return instance;
    }

    const std::wstring name = FakeService::UniqueName();
    const UniqueHandle instance = MakeInstance(name);
    const UniqueHandle other = TakeInstance(name);
};

/// Notices, while it lives, that a client waits for a free instance. Thread: as ImportHook.
class PipeWaitObserver {
public:
    /// Waits for the first such wait. False if it does not come.
    bool Wait() const { return waiting.Wait(); }

private:
    using Hook = HookedImport<&__imp_WaitNamedPipeW>;

    Signal waiting;
    std::once_flag once;
    const Hook hook{[this](const wchar_t* pipe, DWORD milliseconds) {
        std::call_once(once, [this] { waiting.Set(); });
        return Hook::Original(pipe, milliseconds);
    }};
};

}  // namespace client_test
