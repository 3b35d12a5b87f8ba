#include "client/module.h"

#include <memory>
#include <new>
#include <utility>

#include "windows/unique_handle.h"

namespace orvik {

namespace {

/// Any address in the module.
constexpr char kAddress = 0;

HMODULE FindModule(DWORD flags) noexcept {
    HMODULE module = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | flags,
                         reinterpret_cast<const wchar_t*>(&kAddress), &module);
    return module;
}

struct RunningThread {
    UniqueHandle thread;
    HMODULE module;
};

void CALLBACK OnThreadEnd(TP_CALLBACK_INSTANCE* instance, void* context, TP_WAIT* wait,
                          TP_WAIT_RESULT /*result*/) {
    const std::unique_ptr<RunningThread> ended(static_cast<RunningThread*>(context));
    ::CloseThreadpoolWait(wait);
    // This function is in the module too.
    ::FreeLibraryWhenCallbackReturns(instance, ended->module);
}

}  // namespace

HINSTANCE ThisModule() noexcept {
    return FindModule(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT);
}

void KeepModuleLoadedDuring(DWORD threadId) noexcept {
    if (ThisModule() == ::GetModuleHandleW(nullptr))
        return;
    UniqueHandle thread(::OpenThread(SYNCHRONIZE, FALSE, threadId));
    std::unique_ptr<RunningThread> running(new (std::nothrow)
                                               RunningThread{std::move(thread), FindModule(0)});
    if (!running || !running->thread)
        return;
    TP_WAIT* const wait = ::CreateThreadpoolWait(OnThreadEnd, running.get(), nullptr);
    if (wait == nullptr)
        return;
    ::SetThreadpoolWait(wait, running->thread.get(), nullptr);
    static_cast<void>(running.release());
}

}  // namespace orvik
