#include "device/windows_exception.h"

#include <cstring>
#include <memory>
#include <sstream>
#include <string>

#include <windows.h>

#include "windows/unique_memory.h"

namespace {

/// First line of the system's message for `code`; empty when the system has none.
std::string SystemMessage(DWORD code) {
    char* text = nullptr;
    ::FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM,
        nullptr, code, 0, reinterpret_cast<char*>(&text), 0, nullptr);
    const std::unique_ptr<char, LocalFreer> buffer(text);
    return text != nullptr ? std::string(text, std::strcspn(text, "\r\n")) : std::string();
}

std::string FormatWindowsError(const char* text) {
    const DWORD code = ::GetLastError();  // first, before anything can change it
    std::ostringstream message;
    if (text != nullptr)
        message << text << "  ";
    message << "GetLastError() = 0x" << std::hex << code << " (" << SystemMessage(code) << ")";
    return message.str();
}

}  // namespace

WindowsException::WindowsException() : WindowsException(nullptr) {}

WindowsException::WindowsException(const char* text)
    : std::runtime_error(FormatWindowsError(text)) {}
