// The desktop application's registration, and how a stand-in for it tells of being started.
#pragma once

#include <optional>
#include <string>

#include <windows.h>

#include "launch_record.h"
#include "windows/unique_handle.h"

namespace system_test {

/// True where the service in the foreground may start programs for the user at the console. It runs
/// as the user who runs the tests, and Windows lets only LocalSystem do that.
bool MayStartApplication();

/// The program that stands in for the desktop application.
std::wstring RecorderPath();

/// What the registry says of the desktop application while this lives; afterwards it says what it
/// said before. Throws std::runtime_error.
class RegisteredApplication {
public:
    /// Registers `value`, all of its characters and nothing more. Without a value, none is there.
    explicit RegisteredApplication(const std::optional<std::wstring>& value);
    ~RegisteredApplication();

    RegisteredApplication(const RegisteredApplication&) = delete;
    RegisteredApplication& operator=(const RegisteredApplication&) = delete;

private:
    void Write(const std::optional<std::wstring>& value) const;

    HKEY key = nullptr;
    bool isNew = false;
    std::optional<std::wstring> previous;
};

/// The stand-in, registered as the desktop application, and what it tells about its starts.
class LaunchReceiver {
public:
    explicit LaunchReceiver(const std::optional<std::wstring>& registered = RecorderPath() + L'\0');

    /// Waits for the next start. Throws std::runtime_error.
    LaunchRecord Receive();

    /// How many have told of their start and have not been received yet.
    DWORD Waiting() const;

private:
    UniqueHandle mailslot;
    RegisteredApplication application;
};

}  // namespace system_test
