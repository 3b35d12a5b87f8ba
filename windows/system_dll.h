// Which DLLs a program loads. Windows looks for most DLLs beside the program first, where another
// program may have put one of the same name. The exceptions are the known DLLs (the registry key
// HKLM\SYSTEM\CurrentControlSet\Control\Session Manager\KnownDLLs), which always come from
// System32. So a program imports known DLLs only, and loads the others with these functions.
#pragma once

#include <windows.h>

/// From now on the loader looks in System32 only for a DLL that is named without a path, also for
/// one that a library loads. First call of a main().
inline void LoadDllsFromSystemFolderOnly() noexcept {
    ::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
}

/// A function of a DLL in System32, which stays loaded. Null, with the last error set, if there is
/// no such function or no memory to load the DLL. Thread: any.
template <typename Function>
Function SystemFunction(const wchar_t* dll, const char* name) noexcept {
    const HMODULE module = ::LoadLibraryExW(dll, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (module == nullptr)
        return nullptr;
    return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}
