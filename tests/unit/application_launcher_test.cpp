// The start of the desktop application, with the real registry keys and a real program in its
// place.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>
#include <tlhelp32.h>
#include <userenv.h>
#include <wtsapi32.h>

#include "import_hook.h"
#include "in_process_service.h"
#include "recording_application.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::CreateEnvironmentBlock) __imp_CreateEnvironmentBlock;
extern decltype(&::CreateProcessAsUserW) __imp_CreateProcessAsUserW;
extern decltype(&::WTSQueryUserToken) __imp_WTSQueryUserToken;
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

/// The stand-in that has been started: its record's lines.
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

/// The test's end of the stand-ins' pipe. The instance is made before anything is started.
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

    /// Waits for the next stand-in's record, and lets it end. Empty: none came in time.
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
        ::ResetEvent(event.get());
        ::WriteFile(pipe.get(), "x", 1, nullptr, &state);
        Finish(state);
        ::FlushFileBuffers(pipe.get());
        ::DisconnectNamedPipe(pipe.get());

        std::vector<std::wstring> lines;
        for (std::size_t at = 0, end; (end = text.find(L'\n', at)) != text.npos; at = end + 1)
            lines.push_back(text.substr(at, end - at));
        lines.resize(8);
        return Started{lines[0], lines[1], lines[2], lines[3],
                       lines[4], lines[5], lines[6], lines[7]};
    }

private:
    bool Finish(OVERLAPPED& state, DWORD* size = nullptr) {
        DWORD done = 0;
        if (::WaitForSingleObject(event.get(), 20000) != WAIT_OBJECT_0) {
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

/// Processes of this program's name that run now.
std::size_t Running(const std::wstring& name) {
    const UniqueHandle snapshot = OwnFile(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    std::size_t count = 0;
    for (BOOL more = ::Process32FirstW(snapshot.get(), &entry); more;
         more = ::Process32NextW(snapshot.get(), &entry))
        count += name == entry.szExeFile ? 1u : 0u;
    return count;
}

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

    /// Makes a copy of the stand-in, which is deleted after the test.
    void Copy(const std::wstring& target) {
        EXPECT_TRUE(::CopyFileW((ProgramFolder() / L"recording_application.exe").c_str(),
                                target.c_str(), FALSE))
            << ::GetLastError();
        copies.push_back(target);
    }

    std::wstring Named() const { return (ProgramFolder() / L"orvik_named.exe").wstring(); }

    /// Starts the application by the road of the drive watch; returns what started.
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

    /// Names the stand-in, and is so many bytes long: only what is before the first null is used,
    /// and Windows starts no program by a path of 511 characters.
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
    server->LaunchIfNoMainCommunicator();
    EXPECT_EQ(Running(L"Orvik.exe"), 0u);
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
    server->LaunchIfNoMainCommunicator();
    EXPECT_EQ(Running(L"Orvik.exe"), 0u);
    EXPECT_EQ(Running(L"orvik_named.exe"), 0u);
    EXPECT_EQ(output.Error(), "") << "a start that fails is silent";
}

TEST_F(LauncherTest, StartThatFailsIsSilent) {
    AppPath appPath;
    appPath.Set(LR"(C:\no such folder\nothing.exe)");
    server->LaunchIfNoMainCommunicator();
    EXPECT_EQ(output.Out(), kLaunching);
    EXPECT_EQ(output.Error(), "");
    EXPECT_EQ(Running(L"Orvik.exe"), 0u) << "the fixed path is no second try";
}

TEST_F(LauncherTest, TwoCamerasArrivingBeforeAnyClientStartItTwice) {
    AppPath appPath;
    appPath.Set(Named());
    recorder = std::make_unique<Recorder>();
    for (int count = 0; count < 2; ++count)
        InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(Plug()));
    EXPECT_EQ(output.CountOut(kLaunching), 2u);
    EXPECT_EQ(Running(L"orvik_named.exe"), 2u);
    EXPECT_TRUE(recorder->Next().has_value());
    EXPECT_TRUE(recorder->Next().has_value());
}

TEST_F(LauncherTest, NothingIsStartedWhileAMainCommunicatorIsConnected) {
    AppPath appPath;
    appPath.Set(Named());
    auto main = ConnectAndAsk();
    const auto pipe = ConnectAndAsk();
    output.Clear();
    server->LaunchIfNoMainCommunicator();
    InterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(Plug()));
    EXPECT_EQ(output.CountOut(kLaunching), 0u);
    EXPECT_EQ(Running(L"orvik_named.exe"), 0u);
    Leave(main);
    EXPECT_EQ(output.CountOut(kLaunching), 0u) << "its leaving starts nothing";
    ExpectStarted(Named());  // a camera pipe does not count
}

TEST_F(LauncherTest, HandlesOfWhatWasStartedAreClosed) {
    AppPath appPath;
    appPath.Set(Named());
    ExpectStarted(Named());
    const auto lowest = [] {
        const UniqueHandle next(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
        return reinterpret_cast<std::uintptr_t>(next.get());
    };
    const std::uintptr_t before = lowest();
    for (int count = 0; count < 5; ++count)
        ExpectStarted(Named());
    EXPECT_EQ(lowest(), before) << "handles pile up";
}

// ---- The calls themselves, with what they would return in hand. Nothing is started.

class LaunchCallsTest : public InProcessService {
protected:
    void SetUp() override {
        InProcessService::SetUp();
        StartServer();
        output.Clear();
    }

    void TearDown() override {
        calls = std::string();
        calls.shrink_to_fit();
        InProcessService::TearDown();
    }

    /// A camera arrives while nobody is connected; `calls` is then what the launch called.
    void Arrive() {
        PostInterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(Plug()));
        using Close = HookedImport<&__imp_CloseHandle>;
        const Close close([this](HANDLE handle) {
            if (launching)
                calls += "close " + Name(handle) + "\n";
            return launching ? TRUE : Close::Original(handle);
        });
        const HookedImport<&__imp_WTSQueryUserToken> query([this](ULONG session, HANDLE* result) {
            EXPECT_EQ(session, ::WTSGetActiveConsoleSessionId());
            calls += "token\n";
            launching = hasToken;
            if (hasToken)
                *result = kToken;
            return hasToken ? TRUE : FALSE;
        });
        const HookedImport<&__imp_CreateEnvironmentBlock> environment(
            [this](void** block, HANDLE token, BOOL inherit) {
                calls += "environment of " + Name(token) + (inherit ? " inherited" : "") + "\n";
                if (environmentResult == TRUE)
                    *block = kEnvironment;
                return environmentResult;
            });
        const HookedImport<&__imp_CreateProcessAsUserW> start(
            [this](HANDLE token, const wchar_t* path, wchar_t* command, SECURITY_ATTRIBUTES* own,
                   SECURITY_ATTRIBUTES* thread, BOOL inherit, DWORD flags, void* block,
                   const wchar_t* folder, STARTUPINFOW* startup, PROCESS_INFORMATION* process) {
                calls += "start as " + Name(token) + "\n";
                EXPECT_STREQ(path, kFallback);
                EXPECT_EQ(command, nullptr);
                EXPECT_EQ(own, nullptr);
                EXPECT_EQ(thread, nullptr);
                EXPECT_EQ(inherit, FALSE);
                EXPECT_EQ(flags, 0x408u);
                EXPECT_EQ(block, kEnvironment);
                EXPECT_EQ(folder, nullptr);
                ExpectAsAgreed(*startup);
                EXPECT_EQ(process->hProcess, nullptr);
                EXPECT_EQ(process->hThread, nullptr);
                process->hProcess = kProcess;
                process->hThread = kThread;
                return TRUE;
            });
        port.DispatchOne();
        launching = false;
    }

    static void ExpectAsAgreed(const STARTUPINFOW& startup) {
        EXPECT_EQ(startup.cb, 104u);
        EXPECT_STREQ(startup.lpDesktop, LR"(winsta0\default)");
        EXPECT_EQ(startup.dwFlags, 0x41u);
        EXPECT_EQ(startup.wShowWindow, 1u);
        EXPECT_EQ(startup.lpReserved, nullptr);
        EXPECT_EQ(startup.lpTitle, nullptr);
        EXPECT_EQ(startup.dwX | startup.dwY | startup.dwXSize | startup.dwYSize, 0u);
        EXPECT_EQ(startup.dwXCountChars | startup.dwYCountChars | startup.dwFillAttribute, 0u);
        EXPECT_EQ(startup.cbReserved2, 0u);
        EXPECT_EQ(startup.lpReserved2, nullptr);
        EXPECT_EQ(startup.hStdInput, nullptr);
        EXPECT_EQ(startup.hStdOutput, nullptr);
        EXPECT_EQ(startup.hStdError, nullptr);
    }

    static std::string Name(HANDLE handle) {
        return handle == kToken     ? "token"
               : handle == kProcess ? "process"
               : handle == kThread  ? "thread"
               : handle == nullptr  ? "null"
                                    : "another";
    }

    static inline const HANDLE kToken = reinterpret_cast<HANDLE>(0x101);
    static inline const HANDLE kProcess = reinterpret_cast<HANDLE>(0x102);
    static inline const HANDLE kThread = reinterpret_cast<HANDLE>(0x103);
    static inline void* const kEnvironment = reinterpret_cast<void*>(0x104);

    bool hasToken = true;
    BOOL environmentResult = TRUE;
    bool launching = false;  // between the token and the end of the launch
    std::string calls;
};

TEST_F(LaunchCallsTest, StartsTheFixedPathWithTheAgreedArgumentsAndClosesItsHandles) {
    Arrive();
    EXPECT_EQ(calls,
              "token\nenvironment of token\nstart as token\n"
              "close token\nclose process\nclose thread\n");
    EXPECT_EQ(output.Out(), kLaunching);
    EXPECT_EQ(output.Error(), "");
}

TEST_F(LaunchCallsTest, WithoutAUsersTokenOneLineSaysSoAndTheCameraIsRecorded) {
    hasToken = false;
    Arrive();
    EXPECT_EQ(calls, "token\n") << "nothing is started or closed";
    EXPECT_EQ(output.Out(), "");
    EXPECT_EQ(output.Error(), "Failed to get user token to launch application.\n");
    EXPECT_TRUE(server->FindDevice(kFirstCamera));
}

TEST_F(LaunchCallsTest, WithoutAnEnvironmentOneLineSaysSoAndNothingIsStarted) {
    for (const BOOL result : {FALSE, 2}) {  // exactly TRUE is success
        SCOPED_TRACE(result);
        output.Clear();
        calls.clear();
        environmentResult = result;
        Arrive();
        EXPECT_EQ(calls, "token\nenvironment of token\nclose token\nclose null\nclose null\n");
        EXPECT_EQ(output.Out(), kLaunching);
        EXPECT_EQ(output.Error(), "Failed to get User Environment for App launch.\n");
    }
}

}  // namespace
