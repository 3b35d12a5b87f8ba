// The reading of a dump: also one that is cut off at any place, or has a wrong number anywhere.

#include "crash_reason.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbghelp.h>

#include "cancellation.h"
#include "exit_code.h"
#include "protocol/run_end.h"
#include "support/dump_bytes.h"
#include "windows/utf.h"

namespace {

using Bytes = std::vector<std::byte>;

/// In words, or why there is none.
std::string ReasonOf(Bytes bytes) {
    try {
        return CrashReasonOf(std::span(bytes)).Words();
    } catch (const Failure& failure) {
        return std::string("failure: ") + failure.what();
    }
}

TEST(CrashReason, IsTheTextOfTheExceptionThatEndedTheRun) {
    EXPECT_EQ(ReasonOf(DumpBytes("Bad camera in request.").bytes), "Bad camera in request.");
    EXPECT_EQ(ReasonOf(DumpBytes("caf\xC3\xA9").bytes), "caf\xC3\xA9");
    EXPECT_EQ(ReasonOf(DumpBytes("caf\xC3").bytes), "caf\xEF\xBF\xBD") << "a text that was cut off";
    Bytes bytes = DumpBytes("x").bytes;
    const CrashReason reason = CrashReasonOf(std::span(bytes));
    EXPECT_EQ(JsonOf(reason).dump(),
              R"({"time":"2026-11-22T13:31:15Z","exception_code":3763294806,"text":"x"})");
}

TEST(CrashReason, WithoutATextIsTheCodeOfTheException) {
    EXPECT_EQ(ReasonOf(DumpBytes("").bytes),
              "a C++ exception without a text (exception 0xe04f5256)");
    EXPECT_EQ(ReasonOf(DumpBytes("no text", kRunEnded, 0).bytes),
              "a C++ exception without a text (exception 0xe04f5256)")
        << "an older version of the service";
    Bytes bytes = DumpBytes("no text", EXCEPTION_ACCESS_VIOLATION).bytes;
    const CrashReason fault = CrashReasonOf(std::span(bytes));
    EXPECT_EQ(fault.Words(), "access violation (exception 0xc0000005)");
    EXPECT_EQ(JsonOf(fault).at("text"), nullptr);
    EXPECT_EQ(ReasonOf(DumpBytes("no text", 0x12345678).bytes), "exception 0x12345678");
}

TEST(CrashReason, OfWhatIsNoDumpIsAFailure) {
    EXPECT_EQ(ReasonOf({}), "failure: it is empty");
    EXPECT_EQ(ReasonOf(Bytes(1000, std::byte{'x'})), "failure: it is not a dump");
    EXPECT_EQ(ReasonOf(Bytes(10, std::byte{'x'})),
              "failure: it is incomplete: it ends before the end of its header");
    Bytes bytes = DumpBytes("x").bytes;
    const ULONG32 none = 0;
    std::memcpy(bytes.data() + offsetof(MINIDUMP_HEADER, NumberOfStreams), &none, sizeof(none));
    EXPECT_EQ(ReasonOf(bytes), "failure: it does not have the record of the exception");
}

TEST(CrashReason, OfADumpThatIsCutOffAnywhereIsAFailure) {
    const Bytes whole = DumpBytes("Bad camera in request.").bytes;
    for (std::size_t size = 1; size < whole.size(); ++size) {
        const std::string reason =
            ReasonOf({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)});
        EXPECT_TRUE(reason.starts_with("failure: it is incomplete: it ends before the end of "))
            << size << " bytes: " << reason;
    }
}

TEST(CrashReason, OfADumpWithAWrongNumberAnywhereIsReadWithinTheDump) {
    const Bytes whole = DumpBytes("Bad camera in request.").bytes;
    std::size_t failures = 0;
    for (std::size_t place = 0; place + sizeof(std::uint32_t) <= whole.size(); ++place) {
        for (const std::uint32_t number : {0u, 1u, 0x100u, 0x400u, 0x10000u, 0x7fffffffu,
                                           0x80000000u, 0xfffffff0u, 0xffffffffu}) {
            Bytes damaged = whole;
            std::memcpy(damaged.data() + place, &number, sizeof(number));
            failures += ReasonOf(damaged).starts_with("failure: ") ? 1u : 0u;
        }
    }
    EXPECT_GT(failures, 500u);  // the heap ends this program at a read beyond the dump
}

TEST(CrashReason, OfATextOutsideTheStackIsAFailure) {
    MINIDUMP_EXCEPTION_STREAM exception{};
    constexpr std::size_t kPlace = sizeof(MINIDUMP_HEADER) + 2 * sizeof(MINIDUMP_DIRECTORY);
    const struct {
        ULONG64 address;
        ULONG64 length;
    } cases[] = {{kDumpedStack - 1, 2},
                 {kDumpedStack + kDumpedStackSize, 1},
                 {kDumpedStack + kDumpedStackSize - 1, 2},
                 {kDumpedStack, kRunEndedTextLimit + 1},
                 {~ULONG64{0}, 2},
                 {kDumpedStack, ~ULONG64{0}},
                 {0, 1}};
    for (const auto& [address, length] : cases) {
        Bytes bytes = DumpBytes("Bad camera in request.").bytes;
        std::memcpy(&exception, bytes.data() + kPlace, sizeof(exception));
        exception.ExceptionRecord.ExceptionInformation[kTextAddress] = address;
        exception.ExceptionRecord.ExceptionInformation[kTextLength] = length;
        std::memcpy(bytes.data() + kPlace, &exception, sizeof(exception));
        EXPECT_EQ(
            ReasonOf(bytes),
            "failure: the text of the exception is not in the stack of the thread that crashed")
            << address << ", " << length;
    }
}

// --- Of which program a dump is.

constexpr wchar_t kProgram[] = LR"(C:\Program Files\Orvik\OrvikService.exe)";

Bytes DumpOf(const std::wstring& program) {
    return DumpBytes("reason", kRunEnded, kRunEndedParameters, program).bytes;
}

std::string ProgramIn(Bytes bytes) {
    return ToUtf8(ProgramOf(std::span(bytes)));
}

/// Writes `record` over the bytes of a dump.
template <typename Record>
Bytes With(Bytes bytes, std::size_t place, const Record& record) {
    std::memcpy(bytes.data() + place, &record, sizeof(record));
    return bytes;
}

TEST(DumpedProgram, IsTheFileNameOfTheFirstModule) {
    EXPECT_EQ(ProgramIn(DumpOf(kProgram)), "OrvikService.exe");
    EXPECT_EQ(ReasonOf(DumpOf(kProgram)), "reason");
    EXPECT_EQ(ProgramIn(DumpOf(L"caf\u00E9.exe")), "caf\xC3\xA9.exe");
    EXPECT_EQ(ProgramIn(DumpOf(LR"(C:\)" + std::wstring(32700, L'x') + LR"(\y.exe)")), "y.exe");
}

TEST(DumpedProgram, OfADumpWithoutOneIsUnknown) {
    EXPECT_EQ(ProgramIn({}), "");
    EXPECT_EQ(ProgramIn(Bytes(1000, std::byte{'x'})), "");
    EXPECT_EQ(ProgramIn(DumpBytes("reason").bytes), "") << "no list of modules";
    EXPECT_EQ(ProgramIn(DumpOf(LR"(C:\folder\)")), "");
}

TEST(DumpedProgram, OfADumpWithADamagedListOfModulesIsUnknown) {
    const Bytes whole = DumpOf(kProgram);
    constexpr std::size_t kList = sizeof(MINIDUMP_HEADER) + 3 * sizeof(MINIDUMP_DIRECTORY) +
                                  sizeof(MINIDUMP_EXCEPTION_STREAM) + sizeof(ULONG32) +
                                  2 * sizeof(MINIDUMP_THREAD) + kDumpedStackSize;
    constexpr std::size_t kName =
        kList + sizeof(ULONG32) + offsetof(MINIDUMP_MODULE, ModuleNameRva);
    constexpr std::size_t kListSize = sizeof(MINIDUMP_HEADER) + 2 * sizeof(MINIDUMP_DIRECTORY) +
                                      offsetof(MINIDUMP_DIRECTORY, Location) +
                                      offsetof(MINIDUMP_LOCATION_DESCRIPTOR, DataSize);
    ULONG32 name = 0;
    std::memcpy(&name, whole.data() + kName, sizeof(name));
    const auto size = static_cast<ULONG32>(whole.size());

    EXPECT_EQ(ProgramIn(With(whole, kList, ULONG32{0})), "") << "no module";
    for (const ULONG32 tooShort : {0u, 3u, 4u, 100u})
        EXPECT_EQ(ProgramIn(With(whole, kListSize, tooShort)), "") << tooShort;
    for (const ULONG32 outside : {size - 3, size, 0xfffffff0u, 0xffffffffu})
        EXPECT_EQ(ProgramIn(With(whole, kName, outside)), "") << outside;
    const auto rest = static_cast<ULONG32>(size - name - sizeof(ULONG32));
    for (const ULONG32 tooLong : {rest + 1, 0x80000000u, 0xffffffffu})
        EXPECT_EQ(ProgramIn(With(whole, name, tooLong)), "") << tooLong;
    EXPECT_EQ(ProgramIn(With(whole, name, ULONG32{0})), "");
    EXPECT_TRUE(ProgramIn(DumpOf(std::wstring(32768, L'x'))).empty()) << "longer than any path";
    EXPECT_EQ(ReasonOf(With(whole, kList, ULONG32{0})), "reason") << "which is elsewhere";
}

TEST(DumpedProgram, OfADumpThatIsCutOffAnywhereIsUnknown) {
    const Bytes whole = DumpOf(kProgram);
    const std::size_t name = whole.size() - sizeof(wchar_t);  // without its null
    for (std::size_t size = 0; size < name; ++size)
        EXPECT_EQ(ProgramIn({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}), "")
            << size << " bytes";
}

TEST(DumpedProgram, OfADumpWithAWrongNumberAnywhereIsReadWithinTheDump) {
    const Bytes whole = DumpOf(kProgram);
    std::size_t unknown = 0;
    for (std::size_t place = 0; place + sizeof(std::uint32_t) <= whole.size(); ++place)
        for (const std::uint32_t number : {0u, 0x400u, 0xfff0u, 0x7fffffffu, 0xffffffffu})
            unknown += ProgramIn(With(whole, place, number)).empty() ? 1u : 0u;
    EXPECT_GT(unknown, 200u);  // the heap ends this program at a read beyond the dump
}

TEST(DumpedProgram, IsNotUnknownOnCtrlC) {
    CatchCancellation();
    ::SetEvent(CancellationEvent());
    EXPECT_THROW(ProgramOf(std::filesystem::path(L"there is no such dump.dmp")), Failure);
    CatchCancellation();  // a new event
}

}  // namespace
