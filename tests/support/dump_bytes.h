// Small dumps, made by hand.
#pragma once

#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include <windows.h>

#include <dbghelp.h>

#include "protocol/run_end.h"

/// Of the thread that crashed.
constexpr ULONG64 kDumpedStack = 0x7f0000;
constexpr std::size_t kDumpedStackSize = 64;

/// A dump with the parts alone that say why a process ended: header, list of contents, exception,
/// two threads, and the stack of one, which ends with `text`. With a program, a list of modules
/// too.
class DumpBytes {
public:
    static constexpr ULONG32 kThread = 2;  // which crashed

    explicit DumpBytes(const std::string& text, DWORD code = kRunEnded,
                       ULONG32 parameters = kRunEndedParameters, const std::wstring& program = {}) {
        MINIDUMP_HEADER header{};
        header.Signature = 0x504D444D;  // "MDMP"
        header.Version = MINIDUMP_VERSION;
        header.NumberOfStreams = program.empty() ? 2 : 3;
        header.StreamDirectoryRva = sizeof(header);
        header.TimeDateStamp = 1'795'354'275;
        Append(header);

        MINIDUMP_EXCEPTION_STREAM exception{};
        constexpr ULONG32 kThreadsSize = sizeof(ULONG32) + 2 * sizeof(MINIDUMP_THREAD);
        const auto streams =
            static_cast<RVA>(bytes.size() + header.NumberOfStreams * sizeof(MINIDUMP_DIRECTORY));
        Append(MINIDUMP_DIRECTORY{ExceptionStream, {sizeof(exception), streams}});
        const RVA threads = streams + static_cast<RVA>(sizeof(exception));
        Append(MINIDUMP_DIRECTORY{ThreadListStream, {kThreadsSize, threads}});
        const RVA modules = threads + kThreadsSize + static_cast<RVA>(kDumpedStackSize);
        constexpr ULONG32 kModulesSize = sizeof(ULONG32) + 2 * sizeof(MINIDUMP_MODULE);
        if (!program.empty())
            Append(MINIDUMP_DIRECTORY{ModuleListStream, {kModulesSize, modules}});

        exception.ThreadId = kThread;
        exception.ExceptionRecord.ExceptionCode = code;
        exception.ExceptionRecord.NumberParameters = parameters;
        exception.ExceptionRecord.ExceptionInformation[kTextAddress] =
            kDumpedStack + kDumpedStackSize - text.size();
        exception.ExceptionRecord.ExceptionInformation[kTextLength] = text.size();
        Append(exception);

        Append(ULONG32{2});
        MINIDUMP_THREAD thread{};
        thread.ThreadId = 1;
        Append(thread);
        thread.ThreadId = kThread;
        thread.Stack.StartOfMemoryRange = kDumpedStack;
        thread.Stack.Memory = {kDumpedStackSize, threads + kThreadsSize};
        Append(thread);

        bytes.resize(bytes.size() + kDumpedStackSize - text.size());
        for (const char character : text)
            bytes.push_back(static_cast<std::byte>(character));
        if (program.empty())
            return;

        const RVA names = modules + kModulesSize;
        const std::wstring library = LR"(C:\Windows\System32\ntdll.dll)";
        Append(ULONG32{2});
        MINIDUMP_MODULE module{};
        module.ModuleNameRva = names + SizeOfName(library);
        Append(module);
        module.ModuleNameRva = names;
        Append(module);
        AppendName(library);
        AppendName(program);
    }

    std::vector<std::byte> bytes;

private:
    /// As a MINIDUMP_STRING: the length in bytes, UTF-16, a null.
    static RVA SizeOfName(const std::wstring& name) {
        return static_cast<RVA>(sizeof(ULONG32) + (name.size() + 1) * sizeof(wchar_t));
    }

    void AppendName(const std::wstring& name) {
        Append(static_cast<ULONG32>(name.size() * sizeof(wchar_t)));
        for (const wchar_t unit : name)
            Append(unit);
        Append(L'\0');
    }

    template <typename Record>
    void Append(const Record& record) {
        std::array<std::byte, sizeof(record)> copy{};
        std::memcpy(copy.data(), &record, sizeof(record));
        bytes.insert(bytes.end(), copy.begin(), copy.end());
    }
};
