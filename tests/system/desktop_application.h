// The desktop application's registration, and a test program in its place that reports each start.
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

/// The test program that is registered as the desktop application.
std::wstring RecorderPath();

/// The registration of the desktop application while this lives; afterwards the registry has what
/// it said before. Throws std::runtime_error.
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

/// Registers the test program as the desktop application, and receives a record of each start.
class LaunchReceiver {
public:
    explicit LaunchReceiver(const std::optional<std::wstring>& registered = RecorderPath() + L'\0');

    /// Waits for the next start. Throws std::runtime_error.
    LaunchRecord Receive();

    /// How many starts have not been received. Waits until every program that has been started by
    /// now has sent its record and ended.
    DWORD Unreceived() const;

private:
    UniqueHandle mailslot;
    RegisteredApplication application;
};

}  // namespace system_test
