#include "paths.h"

#include <windows.h>

#include "exit_code.h"
#include "windows/utf.h"

std::wstring FullPath(const std::filesystem::path& path) {
    std::wstring name(::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    name.resize(
        ::GetFullPathNameW(path.c_str(), static_cast<DWORD>(name.size()), name.data(), nullptr));
    if (name.empty())
        throw SystemFailure("cannot find the full path of \"" + ToUtf8(path.native()) + "\"");
    return name;
}

std::filesystem::path OwnFolder() {
    std::wstring program(32'768, L'\0');
    program.resize(
        ::GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size())));
    if (program.empty())
        throw SystemFailure("cannot find the path of this program");
    return std::filesystem::path(program).parent_path();
}
