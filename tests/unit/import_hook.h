#pragma once

#include <functional>
#include <utility>

#include <windows.h>

/// Stands between this program and one imported function while it lives: calls go to
/// `replacement`, which passes them on through Original(). The service's own code calls through
/// the same table, so a test sees its calls, or does something at just that moment.
///
/// `entry` is the function's place in the import table, which the linker calls __imp_<function>.
/// Thread: made and destroyed while no other thread calls the function.
template <typename Function>
class ImportHook {
public:
    ImportHook(Function* entry, Function replacement) : place(entry), original(*entry) {
        Set(replacement);
    }
    ~ImportHook() { Set(original); }

    ImportHook(const ImportHook&) = delete;
    ImportHook& operator=(const ImportHook&) = delete;

    Function Original() const noexcept { return original; }

private:
    void Set(Function function) noexcept {
        DWORD protection = 0;
        ::VirtualProtect(place, sizeof(*place), PAGE_READWRITE, &protection);
        *place = function;
        ::VirtualProtect(place, sizeof(*place), protection, &protection);
    }

    Function* place;
    Function original;
};

/// The same with a callable that may have state:
///     const HookedImport<&__imp_CloseHandle> close([&](HANDLE handle) { ... });
/// One at a time for each function. Thread: as ImportHook.
template <auto* entry>
class HookedImport;

template <typename Result, typename... Arguments, Result(WINAPI** entry)(Arguments...)>
class HookedImport<entry> {
public:
    explicit HookedImport(std::function<Result(Arguments...)> whatToCall)
        : replacement(std::move(whatToCall)),
          hook(entry, Call) {
        current = this;
    }
    HookedImport(const HookedImport&) = delete;
    HookedImport& operator=(const HookedImport&) = delete;

    /// The function itself, for the replacement.
    static Result Original(Arguments... arguments) {
        return current->hook.Original()(arguments...);
    }

private:
    static Result WINAPI Call(Arguments... arguments) { return current->replacement(arguments...); }

    static inline HookedImport* current = nullptr;
    std::function<Result(Arguments...)> replacement;
    ImportHook<Result(WINAPI*)(Arguments...)> hook;
};
