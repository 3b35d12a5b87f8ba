#include "desktop_application.h"

#include <chrono>
#include <stdexcept>

#include <tlhelp32.h>
#include <wtsapi32.h>

#include "program.h"
#include "support/deadline.h"

namespace system_test {

namespace {

const std::wstring kRecorderName = L"launch_recorder.exe";
constexpr wchar_t kKey[] = LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\App Paths\Orvik.exe)";

UniqueHandle MakeMailslot() {
    // Every user may write: the program runs as the user at the console, with that user's rights.
    SECURITY_DESCRIPTOR everybody{};
    ::InitializeSecurityDescriptor(&everybody, SECURITY_DESCRIPTOR_REVISION);
    ::SetSecurityDescriptorDacl(&everybody, TRUE, nullptr, FALSE);
    SECURITY_ATTRIBUTES attributes{sizeof(attributes), &everybody, FALSE};
    const auto milliseconds = std::chrono::milliseconds(kDeadline).count();
    UniqueHandle mailslot = OwnFile(::CreateMailslotW(
        kLaunchMailslot, sizeof(LaunchRecord), static_cast<DWORD>(milliseconds), &attributes));
    if (!mailslot)
        throw std::runtime_error("cannot make the mailslot");
    return mailslot;
}

/// Waits for the end of every process of this program.
void WaitForProcesses(const std::wstring& fileName) {
    const UniqueHandle snapshot = OwnFile(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more;
         more = ::Process32NextW(snapshot.get(), &entry)) {
        if (fileName != entry.szExeFile)
            continue;
        const UniqueHandle process(::OpenProcess(SYNCHRONIZE, FALSE, entry.th32ProcessID));
        if (process &&
            ::WaitForSingleObject(process.get(), Deadline().MillisecondsLeft()) != WAIT_OBJECT_0)
            throw std::runtime_error("a started application does not end");
    }
}

}  // namespace

bool MayStartApplication() {
    HANDLE token = nullptr;
    if (!::WTSQueryUserToken(::WTSGetActiveConsoleSessionId(), &token))
        return false;
    ::CloseHandle(token);
    return true;
}

std::wstring RecorderPath() {
    return TestFolder() + L'\\' + kRecorderName;
}

RegisteredApplication::RegisteredApplication(const std::optional<std::wstring>& value) {
    DWORD disposition = 0;
    if (::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key,
                          &disposition) != ERROR_SUCCESS)
        throw std::runtime_error("cannot write the registry");
    isNew = disposition == REG_CREATED_NEW_KEY;
    std::wstring old(2048, L'\0');
    auto size = static_cast<DWORD>(old.size() * sizeof(wchar_t));
    if (::RegQueryValueExW(key, nullptr, nullptr, nullptr, reinterpret_cast<BYTE*>(old.data()),
                           &size) == ERROR_SUCCESS) {
        old.resize(size / sizeof(wchar_t));
        previous = old;
    }
    Write(value);
}

RegisteredApplication::~RegisteredApplication() {
    Write(previous);
    ::RegCloseKey(key);
    if (isNew)
        ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kKey);
}

void RegisteredApplication::Write(const std::optional<std::wstring>& value) const {
    if (value)
        ::RegSetValueExW(key, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(value->data()),
                         static_cast<DWORD>(value->size() * sizeof(wchar_t)));
    else
        ::RegDeleteValueW(key, nullptr);
}

LaunchReceiver::LaunchReceiver(const std::optional<std::wstring>& registered)
    : mailslot(MakeMailslot()),
      application(registered) {}

LaunchRecord LaunchReceiver::Receive() {
    LaunchRecord record{};
    DWORD count = 0;
    if (!::ReadFile(mailslot.get(), &record, sizeof(record), &count, nullptr) ||
        count != sizeof(record))
        throw std::runtime_error("the application has not been started");
    return record;
}

DWORD LaunchReceiver::Unreceived() const {
    WaitForProcesses(kRecorderName);
    DWORD count = 0;
    if (!::GetMailslotInfo(mailslot.get(), nullptr, nullptr, &count, nullptr))
        throw std::runtime_error("GetMailslotInfo");
    return count;
}

}  // namespace system_test
