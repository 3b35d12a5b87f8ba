#pragma once

#include <cstddef>
#include <memory>

#include <windows.h>

/// A record of the service control manager, followed by the texts and arrays that it points to.
template <class Record>
class VariableRecord {
public:
    /// The documentation of the functions that fill such records says that none is longer.
    static constexpr DWORD kLimit = 8 * 1024;

    BYTE* Bytes() noexcept { return reinterpret_cast<BYTE*>(memory.get()); }
    Record& operator*() noexcept { return reinterpret_cast<Record&>(memory[0]); }
    Record* operator->() noexcept { return &**this; }

private:
    std::unique_ptr<std::byte[]> memory = std::make_unique<std::byte[]>(kLimit);
};
