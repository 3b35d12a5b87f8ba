// The start of the desktop application, with the real registry keys and a test program in its
// place.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>
#include <wtsapi32.h>

#include "import_hook.h"
#include "in_process_service.h"
#include "recording_application.h"

extern "C" {
extern decltype(&::CreateProcessAsUserW) __imp_CreateProcessAsUserW;
extern decltype(&::RegCloseKey) __imp_RegCloseKey;
extern decltype(&::RegOpenKeyExW) __imp_RegOpenKeyExW;
}

namespace {

namespace fs = std::filesystem;

constexpr wchar_t kAppPathKey[] =
    LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\App Paths\Orvik.exe)";
constexpr wchar_t kFallback[] = LR"(c:\Program Files (x86)\Orvik\Orvik.exe)";
constexpr char kLaunching[] = "Launching application...\n";

fs::path ProgramFolder() {
    wchar_t module[MAX_PATH] = L"";
    ::GetModuleFileNameW(nullptr, module, MAX_PATH);
    return fs::path(module).parent_path();
}

bool HasUserAtTheConsole() {
    HANDLE token = nullptr;
    if (!::WTSQueryUserToken(::WTSGetActiveConsoleSessionId(), &token))
        return false;
    ::CloseHandle(token);
    return true;
}

/// A start of the test program: the lines of its record.
struct Started {
    std::wstring module;
    std::wstring commandLine;
    std::wstring desktop;
    std::wstring flags;
    std::wstring show;
    std::wstring userVariable;
    std::wstring serviceVariable;
    std::wstring console;
};

/// The test's end of the pipe to the test programs. The instance is made before any is started.
class Recorder {
public:
    Recorder()
        : pipe(OwnFile(::CreateNamedPipeW(
              recording::kPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
              PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE, 10, 0, 0x10000, 0, nullptr))),
          event(::CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
        if (!pipe || !event)
            throw std::system_error(static_cast<int>(::GetLastError()), std::system_category());
    }

    /// Waits for the record of the next program, lets it end and waits for its end. Empty: none
    /// came in time.
    std::optional<Started> Next() {
        OVERLAPPED state{};
        state.hEvent = event.get();
        if (!::ConnectNamedPipe(pipe.get(), &state) && ::GetLastError() != ERROR_PIPE_CONNECTED &&
            !Finish(state))
            return std::nullopt;
        std::wstring text(8192, L'\0');
        DWORD size = 0;
        ::ResetEvent(event.get());
        ::ReadFile(pipe.get(), text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)),
                   nullptr, &state);
        if (!Finish(state, &size))
            return std::nullopt;
        text.resize(size / sizeof(wchar_t));
        const UniqueHandle program = Client();
        ::ResetEvent(event.get());
        ::WriteFile(pipe.get(), "x", 1, nullptr, &state);
        Finish(state);
        ::FlushFileBuffers(pipe.get());
        ::DisconnectNamedPipe(pipe.get());
        // Its file is in use until then.
        EXPECT_EQ(::WaitForSingleObject(program.get(), Deadline().MillisecondsLeft()),
                  WAIT_OBJECT_0);

        std::vector<std::wstring> lines;
        for (std::size_t at = 0, end; (end = text.find(L'\n', at)) != text.npos; at = end + 1)
            lines.push_back(text.substr(at, end - at));
        lines.resize(8);
        return Started{lines[0], lines[1], lines[2], lines[3],
                       lines[4], lines[5], lines[6], lines[7]};
    }

private:
    UniqueHandle Client() const {
        ULONG processId = 0;
        ::GetNamedPipeClientProcessId(pipe.get(), &processId);
        return UniqueHandle(::OpenProcess(SYNCHRONIZE, FALSE, processId));
    }

    bool Finish(OVERLAPPED& state, DWORD* size = nullptr) {
        DWORD done = 0;
        if (::WaitForSingleObject(event.get(), Deadline().MillisecondsLeft()) != WAIT_OBJECT_0) {
            ::CancelIoEx(pipe.get(), &state);
            ::GetOverlappedResult(pipe.get(), &state, &done, TRUE);
            return false;
        }
        const bool good = ::GetOverlappedResult(pipe.get(), &state, &done, TRUE) != FALSE;
        if (size != nullptr)
            *size = done;
        return good;
    }

    UniqueHandle pipe;
    UniqueHandle event;
};

/// The default value of the App Paths key while this lives; afterwards the key is gone.
class AppPath {
public:
    AppPath() {
        ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, kAppPathKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                          &key, nullptr);
    }
    ~AppPath() {
        ::RegCloseKey(key);
        ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kAppPathKey);
    }
    AppPath(const AppPath&) = delete;
    AppPath& operator=(const AppPath&) = delete;

    void SetBytes(const void* bytes, std::size_t size, DWORD type = REG_SZ) {
        EXPECT_EQ(::RegSetValueExW(key, nullptr, 0, type, static_cast<const BYTE*>(bytes),
                                   static_cast<DWORD>(size)),
                  ERROR_SUCCESS);
        DWORD stored = 0;
        EXPECT_EQ(::RegQueryValueExW(key, nullptr, nullptr, nullptr, nullptr, &stored),
                  ERROR_SUCCESS);
        EXPECT_EQ(stored, size) << "the registry keeps what it was given";
    }
    /// With its terminating null.
    void Set(const std::wstring& text) { SetBytes(text.c_str(), (text.size() + 1) * 2); }

private:
    HKEY key = nullptr;
};

/// The programs that the service asks Windows to start while this lives. Each call goes through.
class ProcessStarts {
public:
    ProcessStarts()
        : hook([this](auto token, const wchar_t* path, auto... rest) {
              paths.emplace_back(path);
              const BOOL started = Hook::Original(token, path, rest...);
              succeeded += started ? 1u : 0u;
              return started;
          }) {}

    std::vector<std::wstring> paths;  ///< asked for, in this order
    std::size_t succeeded = 0;

private:
    using Hook = HookedImport<&__imp_CreateProcessAsUserW>;
    Hook hook;
};

using Paths = std::vector<std::wstring>;

class LauncherTest : public InProcessService {
protected:
    void SetUp() override {
        if (!HasUserAtTheConsole())
            GTEST_SKIP() << "no user's token: only a service at a machine with a user has it";
        InProcessService::SetUp();
        StartServer();
        // Under names of their own, so that they can be told apart while they run.
        Copy(Named());
        fs::create_directories(fs::path(kFallback).parent_path());
        Copy(kFallback);
    }

    void TearDown() override {
        recorder.reset();
        for (const std::wstring& file : copies)
            ::DeleteFileW(file.c_str());
        copies = std::vector<std::wstring>();
        if (server)
            InProcessService::TearDown();
    }

    /// Makes a copy of the test program, which is deleted after the test.
    void Copy(const std::wstring& target) {
        EXPECT_TRUE(::CopyFileW((ProgramFolder() / L"recording_application.exe").c_str(),
                                target.c_str(), FALSE))
            << ::GetLastError();
        copies.push_back(target);
    }

    std::wstring Named() const { return (ProgramFolder() / L"orvik_named.exe").wstring(); }

    /// Starts the application as the drive watch does; the program that has started.
    std::optional<Started> Launch() {
        if (!recorder)
            recorder = std::make_unique<Recorder>();
        const std::size_t before = output.CountOut(kLaunching);
        server->LaunchIfNoMainCommunicator();
        EXPECT_EQ(output.CountOut(kLaunching), before + 1);
        EXPECT_EQ(output.Error(), "");
        return recorder->Next();
    }

    void ExpectFallback() {
        const std::optional<Started> started = Launch();
        ASSERT_TRUE(started.has_value()) << "nothing was started";
        EXPECT_EQ(::CompareStringOrdinal(started->module.c_str(), -1, kFallback, -1, TRUE),
                  CSTR_EQUAL)
            << fs::path(started->module);
    }

    void ExpectStarted(const std::wstring& path) {
        const std::optional<Started> started = Launch();
        ASSERT_TRUE(started.has_value()) << "nothing was started";
        EXPECT_EQ(fs::path(started->module).filename(), fs::path(path).filename());
    }

    /// Names the test program, and is so many bytes long: only the text before the first null is
    /// used, because Windows starts no program by a path of 511 characters.
    std::wstring NamedInBytes(std::size_t size) const {
        std::wstring text = Named() + L'\0';
        text.append(size / 2 - text.size() - 1, L'x');
        return text;
    }

    std::unique_ptr<Recorder> recorder;
    std::vector<std::wstring> copies;
};

TEST_F(LauncherTest, StartsWhatTheRegistryNamesOnTheUsersDesktopWithTheUsersEnvironment) {
    HKEY environment = nullptr;
    ASSERT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, L"Environment", 0, nullptr, 0, KEY_ALL_ACCESS,
                                nullptr, &environment, nullptr),
              ERROR_SUCCESS);
    const wchar_t value[] = L"of the user \u00e4";
    ::RegSetValueExW(environment, recording::kUserVariable, 0, REG_SZ,
                     reinterpret_cast<const BYTE*>(value), sizeof(value));
    ::SetEnvironmentVariableW(recording::kServiceVariable, L"of the service");
    {
        AppPath appPath;
        appPath.Set(Named());
        const std::optional<Started> started = Launch();
        ASSERT_TRUE(started.has_value()) << "nothing was started";
        EXPECT_EQ(fs::path(started->module).filename(), L"orvik_named.exe");
        EXPECT_EQ(started->desktop, LR"(winsta0\default)");
        EXPECT_EQ(started->flags, L"65");  // STARTF_USESHOWWINDOW and STARTF_FORCEONFEEDBACK
        EXPECT_EQ(started->show, L"1");    // SW_SHOWNORMAL
        EXPECT_EQ(started->userVariable, value);
        EXPECT_EQ(started->serviceVariable, L"(none)") << "the service's own environment leaked";
        EXPECT_EQ(started->console, L"no console");
        // No command line was given: it is the application's name, with nothing behind it.
        EXPECT_NE(started->commandLine.find(L"orvik_named.exe"), std::wstring::npos);
        EXPECT_EQ(started->commandLine.find(L"--"), std::wstring::npos);
    }
    ::SetEnvironmentVariableW(recording::kServiceVariable, nullptr);
    ::RegDeleteValueW(environment, recording::kUserVariable);
    ::RegCloseKey(environment);
}

TEST_F(LauncherTest, WithoutTheKeyTheFixedPathIsStarted) {
    ExpectFallback();
}

TEST_F(LauncherTest, WithoutADefaultValueTheFixedPathIsStarted) {
    const AppPath appPath;
    ExpectFallback();
}

TEST_F(LauncherTest, EmptyValuesGiveTheFixedPath) {
    AppPath appPath;
    appPath.Set(L"");
    ExpectFallback();
    appPath.SetBytes(L"\0\0\0\0", 8, REG_BINARY);
    ExpectFallback();
    appPath.SetBytes("", 0, REG_BINARY);
    ExpectFallback();
    appPath.SetBytes("x", 1, REG_BINARY);  // less than a character
    ExpectFallback();
}

TEST_F(LauncherTest, KeyIsClosedWhetherItsValueIsUsedOrNot) {
    std::size_t opened = 0;
    std::set<HKEY> open;
    using Open = HookedImport<&__imp_RegOpenKeyExW>;
    const Open openHook(
        [&](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) {
            const LSTATUS result = Open::Original(root, path, options, access, key);
            if (path == std::wstring(kAppPathKey) && result == ERROR_SUCCESS) {
                ++opened;
                open.insert(*key);
            }
            return result;
        });
    using Close = HookedImport<&__imp_RegCloseKey>;
    const Close closeHook([&](HKEY key) {
        open.erase(key);
        return Close::Original(key);
    });
    AppPath appPath;
    appPath.Set(Named());
    ExpectStarted(Named());
    appPath.Set(L"");
    ExpectFallback();
    EXPECT_EQ(opened, 2u);
    EXPECT_EQ(open.size(), 0u);
}

TEST_F(LauncherTest, ValueOfExactly1024BytesIsUsedAndALongerOneIsNot) {
    AppPath appPath;
    appPath.Set(NamedInBytes(1024));
    ExpectStarted(Named());
    appPath.Set(NamedInBytes(1026));
    ExpectFallback();
    appPath.Set(NamedInBytes(2048));  // the size of the query's buffer
    ExpectFallback();
    appPath.Set(NamedInBytes(2050));  // the query itself fails
    ExpectFallback();
    appPath.Set(NamedInBytes(5000));
    ExpectFallback();
    // One that names nothing is used too: the fixed path is no second try.
    appPath.Set(std::wstring(511, L'x'));
    const ProcessStarts starts;
    server->LaunchIfNoMainCommunicator();
    EXPECT_EQ(starts.paths, Paths{std::wstring(511, L'x')});
    EXPECT_EQ(starts.succeeded, 0u);
}

TEST_F(LauncherTest, ValueWithoutItsNullIsUsedToo) {
    AppPath appPath;
    appPath.SetBytes(Named().c_str(), Named().size() * 2, REG_BINARY);
    ExpectStarted(Named());
}

TEST_F(LauncherTest, ValueIsReadUpToItsFirstNullAndItsLengthDecidesOnTheFixedPath) {
    AppPath appPath;
    std::wstring value = Named();
    value += L'\0';
    value += L"something else";
    appPath.Set(value);
    ExpectStarted(Named());
    // Not empty by its length, and yet no path: neither is started.
    const wchar_t nothing[] = L"\0x";
    appPath.SetBytes(nothing, sizeof(nothing), REG_BINARY);
    const ProcessStarts starts;
    server->LaunchIfNoMainCommunicator();
    EXPECT_EQ(starts.paths, Paths{L""});
    EXPECT_EQ(starts.succeeded, 0u);
    EXPECT_EQ(output.Error(), "") << "a start that fails is silent";
}

TEST_F(LauncherTest, StartThatFailsIsSilent) {
    AppPath appPath;
    appPath.Set(LR"(C:\no such folder\nothing.exe)");
    const ProcessStarts starts;
    server->LaunchIfNoMainCommunicator();
    EXPECT_EQ(output.Out(), kLaunching);
    EXPECT_EQ(output.Error(), "");
    EXPECT_EQ(starts.paths, Paths{LR"(C:\no such folder\nothing.exe)"})
        << "the fixed path is no second try";
    EXPECT_EQ(starts.succeeded, 0u);
}

TEST_F(LauncherTest, TwoCamerasArrivingBeforeAnyClientStartItTwice) {
    AppPath appPath;
    appPath.Set(Named());
    recorder = std::make_unique<Recorder>();
    const ProcessStarts starts;
    for (int count = 0; count < 2; ++count)
        InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(Plug()));
    EXPECT_EQ(output.CountOut(kLaunching), 2u);
    EXPECT_EQ(starts.paths, (Paths{Named(), Named()}));
    EXPECT_EQ(starts.succeeded, 2u);
    EXPECT_TRUE(recorder->Next().has_value());
    EXPECT_TRUE(recorder->Next().has_value());
}

TEST_F(LauncherTest, NothingIsStartedWhileAMainCommunicatorIsConnected) {
    AppPath appPath;
    appPath.Set(Named());
    auto main = ConnectAndAsk();
    const auto pipe = ConnectAndAsk();
    output.Clear();
    const ProcessStarts starts;
    server->LaunchIfNoMainCommunicator();
    InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(Plug()));
    Leave(main);
    EXPECT_EQ(output.CountOut(kLaunching), 0u) << "neither while it is connected nor as it leaves";
    EXPECT_EQ(starts.paths, Paths());
    ExpectStarted(Named());  // a camera pipe does not count
}

TEST_F(LauncherTest, HandlesOfWhatWasStartedAreClosed) {
    AppPath appPath;
    appPath.Set(Named());
    ExpectStarted(Named());
    const auto lowest = [] {
        const UniqueHandle next(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
        const auto number = reinterpret_cast<std::uintptr_t>(next.get());
        return number;
    };
    const std::uintptr_t before = lowest();
    for (int count = 0; count < 5; ++count)
        ExpectStarted(Named());
    EXPECT_EQ(lowest(), before) << "handles pile up";
}

}  // namespace
