#include "client/trace.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <utility>

#include "windows/utf.h"

namespace orvik {

namespace {

constexpr wchar_t kVariable[] = L"ORVIK_TRACE";

std::wstring EnvironmentVariable(const wchar_t* name) {
    std::wstring value(::GetEnvironmentVariableW(name, nullptr, 0), L'\0');
    value.resize(::GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
    return value;
}

/// "2026-01-31T23:59:59.123456Z"
std::string Now() {
    FILETIME time{};
    ::GetSystemTimePreciseAsFileTime(&time);
    SYSTEMTIME parts{};
    ::FileTimeToSystemTime(&time, &parts);
    const std::uint64_t ticks =  // of 100 ns
        (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
    char text[64];
    std::snprintf(text, sizeof(text), "%04u-%02u-%02uT%02u:%02u:%02u.%06uZ", parts.wYear,
                  parts.wMonth, parts.wDay, parts.wHour, parts.wMinute, parts.wSecond,
                  static_cast<unsigned>(ticks / 10 % 1'000'000));
    return text;
}

const char* RequestName(std::uint32_t messageType) {
    switch (messageType) {
        case kTransferOut:
            return "out";
        case kTransferIn:
            return "in";
        default:
            return "no-data";
    }
}

const char* AnswerName(std::uint32_t messageType) {
    switch (messageType) {
        case kTransferSucceeded:
            return "succeeded";
        case kTransferFailed:
            return "failed";
        case kCameraAttached:
            return "attached";
        default:
            return "detached";
    }
}

/// The name of a SCSI command (SPC, SBC); null for others.
const char* CommandName(std::byte code) {
    switch (static_cast<unsigned>(code)) {
        case 0x00:
            return "TEST UNIT READY";
        case 0x03:
            return "REQUEST SENSE";
        case 0x08:
            return "READ(6)";
        case 0x0A:
            return "WRITE(6)";
        case 0x12:
            return "INQUIRY";
        case 0x15:
            return "MODE SELECT(6)";
        case 0x1A:
            return "MODE SENSE(6)";
        case 0x1B:
            return "START STOP UNIT";
        case 0x1E:
            return "PREVENT ALLOW MEDIUM REMOVAL";
        case 0x25:
            return "READ CAPACITY(10)";
        case 0x28:
            return "READ(10)";
        case 0x2A:
            return "WRITE(10)";
        case 0x35:
            return "SYNCHRONIZE CACHE(10)";
        default:
            return nullptr;
    }
}

/// The command's bytes and its name.
std::string CommandText(std::span<const std::byte> command) {
    // Commands below 0x20 have six bytes. Of the others the camera gets no more than eight.
    const std::size_t length = command[0] < std::byte{0x20} ? 6 : kCdbLength;
    std::string text;
    for (const std::byte value : command.first(length)) {
        char hex[8];
        std::snprintf(hex, sizeof(hex), " %02x", static_cast<unsigned>(value));
        text += hex;
    }
    if (const char* const name = CommandName(command[0]))
        text += std::string(" ") + name;
    return text;
}

std::string HeaderText(const char* direction, const char* type, const MessageHeader& header) {
    std::string text = std::string(direction) + " " + type;
    if (header.requestId != kNotificationId)
        text += " request " + std::to_string(header.requestId);
    text += " camera " + std::to_string(header.cameraId);
    if (header.requestId != kNotificationId)
        text += " length " + std::to_string(header.bodyLength);
    return text;
}

/// Writes the line that `makeText` returns, unless there is no memory for it.
template <typename MakeText>
void Write(TraceFile* file, unsigned number, MakeText makeText) noexcept {
    try {
        file->WriteLine(number, makeText());
    } catch (const std::exception&) {
        // The line is missing.
    }
}

}  // namespace

TraceFile* TraceFile::OfProcess() noexcept {
    static TraceFile* const file = []() noexcept -> TraceFile* {
        try {
            const std::wstring path = EnvironmentVariable(kVariable);
            return path.empty() ? nullptr : Open(path).release();
        } catch (const std::exception&) {
            return nullptr;
        }
    }();
    return file;
}

std::unique_ptr<TraceFile> TraceFile::Open(const std::wstring& path) {
    // Windows appends each write whole to a file that is opened for nothing but appending, also
    // when several processes write. Wine may lose a line of two processes that write at once.
    // A pipe's server, if the path names one, may not act in the program's name.
    UniqueHandle opened = OwnFile(
        ::CreateFileW(path.c_str(), FILE_APPEND_DATA,
                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                      FILE_ATTRIBUTE_NORMAL | SECURITY_SQOS_PRESENT | SECURITY_ANONYMOUS, nullptr));
    return std::unique_ptr<TraceFile>(opened ? new TraceFile(std::move(opened)) : nullptr);
}

void TraceFile::WriteLine(unsigned number, std::string_view text) noexcept {
    try {
        const std::lock_guard lock(mutex);
        std::string line = Now() + " " + std::to_string(::GetCurrentProcessId()) + "." +
                           std::to_string(number) + " ";
        line += text;
        line += "\n";
        DWORD written = 0;
        ::WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    } catch (const std::exception&) {
        // No memory: the line is missing.
    }
}

Trace::Trace(TraceFile* traceFile) noexcept
    : file(traceFile),
      number([] {
          static std::atomic<unsigned> newest{0};
          return ++newest;
      }()) {}

void Trace::Connected(DWORD server, const std::wstring& pipe) const noexcept {
    Write(file, number, [&] {
        return "* connected to process " + std::to_string(server) + " on " + ToUtf8(pipe);
    });
}

void Trace::NotConnected(const Error& error) const noexcept {
    Write(file, number, [&] { return std::string("* not connected: ") + error.what(); });
}

void Trace::Sent(std::span<const std::byte> message) const noexcept {
    Write(file, number, [&] {
        MessageHeader header{};
        std::memcpy(&header, message.data(), sizeof(header));
        std::string text = HeaderText(">", RequestName(header.messageType), header);
        if (header.bodyLength >= kCdbFieldSize)
            text += ":" + CommandText(message.subspan(sizeof(header), kCdbFieldSize));
        return text;
    });
}

void Trace::Received(const MessageHeader& header,
                     std::optional<std::chrono::microseconds> took) const noexcept {
    Write(file, number, [&] {
        std::string text = HeaderText("<", AnswerName(header.messageType), header);
        if (took)
            text += " after " + std::to_string(took->count()) + " us";
        return text;
    });
}

void Trace::Closed(const Error& error) const noexcept {
    Write(file, number, [&] { return std::string("* closed: ") + error.what(); });
}

void Trace::Disconnected() const noexcept {
    Write(file, number, [] { return "* disconnected"; });
}

}  // namespace orvik
