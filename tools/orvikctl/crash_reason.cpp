#include "crash_reason.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include <dbghelp.h>

#include "cancellation.h"
#include "exit_code.h"
#include "input_file.h"
#include "protocol/run_end.h"
#include "utc_time.h"
#include "windows/system_dll.h"
#include "windows/utf.h"

namespace {

/// "MDMP". Not MINIDUMP_SIGNATURE, a constant of several characters, of which GCC warns.
constexpr ULONG32 kSignature = 0x504D444D;

[[noreturn]] void Refuse(const std::string& why) {
    throw Failure(ExitCode::kFailure, why);
}

/// The content of a dump. It may be cut off at any place or contain anything, and
/// MiniDumpReadDumpStream does not know its size: each part is checked before it is read.
class DumpContent {
public:
    explicit DumpContent(std::span<std::byte> content) : bytes(content) {
        const auto header = At<MINIDUMP_HEADER>(0, "its header");
        if (header.Signature != kSignature)
            Refuse("it is not a dump");
        Part(header.StreamDirectoryRva,
             std::uint64_t{header.NumberOfStreams} * sizeof(MINIDUMP_DIRECTORY),
             "its list of contents");
        seconds = header.TimeDateStamp;
    }

    /// Since 1970.
    std::uint32_t Time() const noexcept { return seconds; }

    /// `name` is for the Failure that is thrown if there is no such stream.
    std::span<const std::byte> Stream(ULONG type, const char* name) const {
        const auto read = SystemFunction<decltype(&::MiniDumpReadDumpStream)>(
            L"dbghelp.dll", "MiniDumpReadDumpStream");
        if (read == nullptr)
            throw SystemFailure("cannot load dbghelp.dll");
        MINIDUMP_DIRECTORY* entry = nullptr;
        void* stream = nullptr;
        ULONG size = 0;
        if (!read(bytes.data(), type, &entry, &stream, &size) || entry == nullptr)
            Refuse(std::string("it does not have ") + name);
        // The function's own pointer and size are no more than these two, unchecked.
        MINIDUMP_DIRECTORY copy{};
        std::memcpy(&copy, entry, sizeof(copy));  // may be unaligned
        return Part(copy.Location.Rva, copy.Location.DataSize, name);
    }

    std::span<const std::byte> Part(std::uint64_t offset, std::uint64_t size,
                                    const char* name) const {
        if (offset > bytes.size() || size > bytes.size() - offset)
            Refuse(std::string("it is incomplete: it ends before the end of ") + name);
        return bytes.subspan(static_cast<std::size_t>(offset), static_cast<std::size_t>(size));
    }

    template <typename Record>
    Record At(std::uint64_t offset, const char* name) const {
        Record record{};
        std::memcpy(&record, Part(offset, sizeof(record), name).data(), sizeof(record));
        return record;
    }

private:
    std::span<std::byte> bytes;
    std::uint32_t seconds = 0;
};

/// The record at the start of a part. Records in dumps need not be aligned.
template <typename Record>
Record First(std::span<const std::byte> part, const char* name) {
    Record record{};
    if (part.size() < sizeof(record))
        Refuse(std::string(name) + " is too short");
    std::memcpy(&record, part.data(), sizeof(record));
    return record;
}

/// The stack of a thread, as a list with one range of memory.
MINIDUMP_MEMORY_DESCRIPTOR StackOf(const DumpContent& dump, ULONG32 thread) {
    constexpr char kName[] = "the list of its threads";
    std::span<const std::byte> list = dump.Stream(ThreadListStream, kName);
    const auto count = First<ULONG32>(list, kName);
    list = list.subspan(sizeof(count));
    for (ULONG32 i = 0; i < count; ++i) {
        const auto entry = First<MINIDUMP_THREAD>(list, kName);
        if (entry.ThreadId == thread)
            return entry.Stack;
        list = list.subspan(sizeof(entry));
    }
    Refuse("it does not have the thread that crashed");
}

/// The text that the service leaves with the exception kRunEnded. Empty if there is none.
std::optional<std::string> TextOf(const DumpContent& dump,
                                  const MINIDUMP_EXCEPTION_STREAM& exception) {
    const MINIDUMP_EXCEPTION& record = exception.ExceptionRecord;
    if (record.ExceptionCode != kRunEnded || record.NumberParameters != kRunEndedParameters ||
        record.ExceptionInformation[kTextLength] == 0)
        return std::nullopt;
    const ULONG64 address = record.ExceptionInformation[kTextAddress];
    const ULONG64 length = record.ExceptionInformation[kTextLength];
    const MINIDUMP_MEMORY_DESCRIPTOR stack = StackOf(dump, exception.ThreadId);
    if (length > kRunEndedTextLimit || address < stack.StartOfMemoryRange ||
        address - stack.StartOfMemoryRange > stack.Memory.DataSize ||
        length > stack.Memory.DataSize - (address - stack.StartOfMemoryRange))
        Refuse("the text of the exception is not in the stack of the thread that crashed");
    const auto text = dump.Part(stack.Memory.Rva + (address - stack.StartOfMemoryRange), length,
                                "the text of the exception");
    // Through UTF-16, because the text may be in another code page or be cut off.
    return ToUtf8(ToUtf16({reinterpret_cast<const char*>(text.data()), text.size()}));
}

/// The path of the program: Windows lists it as the first module of its process.
std::filesystem::path ProgramIn(const DumpContent& dump) {
    constexpr char kName[] = "the list of its modules";
    const std::span<const std::byte> list = dump.Stream(ModuleListStream, kName);
    const auto count = First<ULONG32>(list, kName);
    if (count == 0)
        Refuse("it does not have its program");
    const auto program = First<MINIDUMP_MODULE>(list.subspan(sizeof(count)), kName);
    const auto length = dump.At<ULONG32>(program.ModuleNameRva, "the name of its program");
    constexpr ULONG32 kLongestPath = 32767 * sizeof(wchar_t);
    if (length > kLongestPath)
        Refuse("the name of its program is too long");
    const auto name = dump.Part(std::uint64_t{program.ModuleNameRva} + sizeof(length), length,
                                "the name of its program");
    std::wstring path(length / sizeof(wchar_t), L'\0');
    std::memcpy(path.data(), name.data(), path.size() * sizeof(wchar_t));  // may be unaligned
    return path;
}

const char* NameOf(DWORD exceptionCode) noexcept {
    switch (exceptionCode) {
        case kRunEnded:
            return "a C++ exception without a text";
        case EXCEPTION_ACCESS_VIOLATION:
            return "access violation";
        case EXCEPTION_IN_PAGE_ERROR:
            return "a page could not be read";
        case EXCEPTION_ILLEGAL_INSTRUCTION:
            return "illegal instruction";
        case EXCEPTION_STACK_OVERFLOW:
            return "stack overflow";
        case EXCEPTION_INT_DIVIDE_BY_ZERO:
            return "division by zero";
        case EXCEPTION_BREAKPOINT:
            return "breakpoint";
        default:
            return nullptr;
    }
}

FILETIME FileTimeOf(std::uint32_t secondsSince1970) noexcept {
    constexpr std::uint64_t kSecondsFrom1601To1970 = 11'644'473'600;
    const std::uint64_t ticks = (secondsSince1970 + kSecondsFrom1601To1970) * 10'000'000;
    return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

}  // namespace

std::string CrashReason::Words() const {
    if (text)
        return *text;
    std::array<char, 40> code{};
    std::snprintf(code.data(), code.size(), "exception 0x%08lx", exceptionCode);
    const char* const name = NameOf(exceptionCode);
    return name != nullptr ? std::string(name) + " (" + code.data() + ")" : code.data();
}

CrashReason CrashReasonOf(std::span<std::byte> bytes) {
    if (bytes.empty())
        Refuse("it is empty");
    const DumpContent dump(bytes);
    constexpr char kName[] = "the record of the exception";
    const auto exception =
        First<MINIDUMP_EXCEPTION_STREAM>(dump.Stream(ExceptionStream, kName), kName);
    return {FileTimeOf(dump.Time()), exception.ExceptionRecord.ExceptionCode,
            TextOf(dump, exception)};
}

CrashReason CrashReasonOf(const std::filesystem::path& dump) {
    InputFile file(dump);
    const std::uint64_t size = file.Size();
    if (size > kDumpSizeLimit)
        Refuse("cannot read the dump " + file.Name() + ": it has more than " +
               std::to_string(kDumpSizeLimit) + " bytes");
    std::vector<std::byte> bytes = file.Read(static_cast<std::size_t>(size));
    try {
        return CrashReasonOf(std::span(bytes));
    } catch (const Failure& failure) {
        Refuse("cannot read the dump " + file.Name() + ": " + failure.what());
    }
}

std::wstring ProgramOf(std::span<std::byte> bytes) {
    try {
        return ProgramIn(DumpContent(bytes)).filename().wstring();
    } catch (const Failure&) {
        return {};
    }
}

std::wstring ProgramOf(const std::filesystem::path& dump) {
    // The list of modules and their names are near the start, in front of the memory: a dump with
    // all memory of its process may have gigabytes.
    constexpr std::size_t kPartWithNames = std::size_t{4} * 1024 * 1024;
    try {
        std::vector<std::byte> bytes = InputFile(dump).Read(kPartWithNames);
        return ProgramOf(std::span(bytes));
    } catch (const Failure&) {
        ThrowIfCancelled();
        return {};
    }
}

Json JsonOf(const CrashReason& reason) {
    return {{"time", TimeOf(reason.time)},
            {"exception_code", reason.exceptionCode},
            {"text", reason.text ? Json(*reason.text) : Json()}};
}
