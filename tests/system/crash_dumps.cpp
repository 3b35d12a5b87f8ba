#include "crash_dumps.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <gtest/gtest.h>

#include <dbghelp.h>

#include "system_test.h"

namespace system_test {

namespace fs = std::filesystem;

namespace {

std::vector<std::byte> Bytes(const fs::path& path) {
    std::vector<std::byte> bytes(fs::file_size(path));
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

/// A structure of the dump. They need not be aligned.
template <typename Type>
Type CopyAt(const std::byte* place) {
    Type value;
    std::memcpy(&value, place, sizeof(value));
    return value;
}

const std::byte* Stream(std::vector<std::byte>& dump, ULONG type) {
    MINIDUMP_DIRECTORY* directory = nullptr;
    void* stream = nullptr;
    ULONG size = 0;
    if (!::MiniDumpReadDumpStream(dump.data(), type, &directory, &stream, &size) ||
        stream == nullptr)
        throw std::runtime_error("the dump has no stream " + std::to_string(type));
    return static_cast<const std::byte*>(stream);
}

/// The entries of a stream that is a list: their number, then they themselves.
template <typename Entry>
std::vector<Entry> List(std::vector<std::byte>& dump, ULONG type) {
    const std::byte* const stream = Stream(dump, type);
    std::vector<Entry> entries(CopyAt<ULONG32>(stream));
    std::memcpy(entries.data(), stream + sizeof(ULONG32), entries.size() * sizeof(Entry));
    return entries;
}

std::wstring FileName(const std::vector<std::byte>& dump, const MINIDUMP_MODULE& module) {
    const std::byte* const name = dump.data() + module.ModuleNameRva;
    std::wstring path(CopyAt<ULONG32>(name) / sizeof(wchar_t), L'\0');
    std::memcpy(path.data(), name + sizeof(ULONG32), path.size() * sizeof(wchar_t));
    return std::filesystem::path(path).filename();
}

}  // namespace

NewDumps::NewDumps(fs::path in) : folder(std::move(in)), before(All()) {}

NewDumps::~NewDumps() {
    for (const fs::path& dump : Find()) {
        std::error_code ignored;
        fs::remove(dump, ignored);
    }
}

std::vector<fs::path> NewDumps::Find() const {
    std::vector<fs::path> dumps = All();
    std::erase_if(dumps, [this](const fs::path& dump) {
        return std::find(before.begin(), before.end(), dump) != before.end();
    });
    return dumps;
}

std::vector<fs::path> NewDumps::All() const {
    std::vector<fs::path> dumps;
    std::error_code noSuchFolder;
    for (const auto& entry : fs::directory_iterator(folder, noSuchFolder)) {
        if (entry.path().extension() == L".dmp")
            dumps.push_back(entry.path());
    }
    return dumps;
}

fs::path CrashServerFolder() {
    wchar_t system[MAX_PATH] = {};
    ::GetSystemDirectoryW(system, MAX_PATH);
    return fs::path(system).root_path();
}

Dump ReadDump(const fs::path& path) {
    std::vector<std::byte> bytes = Bytes(path);
    const auto exception = CopyAt<MINIDUMP_EXCEPTION_STREAM>(Stream(bytes, ExceptionStream));
    Dump dump;
    dump.exceptionCode = exception.ExceptionRecord.ExceptionCode;
    dump.flags = CopyAt<MINIDUMP_HEADER>(bytes.data()).Flags;
    const ULONG64 address = exception.ExceptionRecord.ExceptionAddress;
    for (const auto& module : List<MINIDUMP_MODULE>(bytes, ModuleListStream)) {
        if (address >= module.BaseOfImage && address - module.BaseOfImage < module.SizeOfImage)
            dump.module = FileName(bytes, module);
    }
    for (const auto& thread : List<MINIDUMP_THREAD>(bytes, ThreadListStream)) {
        if (thread.ThreadId == exception.ThreadId)
            dump.hasItsThread = thread.Stack.Memory.DataSize != 0;
    }
    return dump;
}

Dump KeepDump(const std::vector<fs::path>& dumps, const std::wstring& name) {
    if (dumps.size() != 1)
        throw std::runtime_error(std::to_string(dumps.size()) + " dumps in place of one");
    const fs::path folder = fs::path(TestFolder()) / L"dumps";
    const fs::path kept = folder / (name + L".dmp");
    fs::create_directories(folder);
    fs::copy_file(dumps[0], kept, fs::copy_options::overwrite_existing);
    fs::remove(dumps[0]);
    return ReadDump(kept);
}

void ExpectFault(const Dump& dump, const std::wstring& module) {
    EXPECT_EQ(dump.exceptionCode, DWORD{EXCEPTION_ACCESS_VIOLATION});
    EXPECT_EQ(ToUtf8(dump.module), ToUtf8(module));
    EXPECT_TRUE(dump.hasItsThread);
}

}  // namespace system_test
