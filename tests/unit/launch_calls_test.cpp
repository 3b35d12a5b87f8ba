// The calls of Windows that start the desktop application, with answers that the test chooses.
// Nothing is started.

#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include <dbt.h>

#include "import_hook.h"
#include "in_process_service.h"
#include "server/launch_functions.h"
#include "windows/system_dll.h"

extern "C" {
extern decltype(&::CloseHandle) __imp_CloseHandle;
extern decltype(&::CreateProcessAsUserW) __imp_CreateProcessAsUserW;
extern decltype(&::RegOpenKeyExW) __imp_RegOpenKeyExW;
}

namespace {

constexpr wchar_t kFallback[] = LR"(c:\Program Files (x86)\Orvik\Orvik.exe)";
constexpr char kLaunching[] = "Launching application...\n";

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

    /// A camera arrives while no client is connected; `calls` then has the calls of the launch.
    void Arrive() {
        PostInterfaceEvent(DBT_DEVICEARRIVAL, bus.InterfacePath(Plug()));
        using Close = HookedImport<&__imp_CloseHandle>;
        const Close close([this](HANDLE handle) {
            if (launching)
                calls += "close " + Name(handle) + "\n";
            return launching ? TRUE : Close::Original(handle);
        });
        const HookedImport<&queryUserToken> query([this](ULONG session, HANDLE* result) {
            EXPECT_EQ(session, ::WTSGetActiveConsoleSessionId());
            calls += "token\n";
            launching = hasToken;
            if (hasToken)
                *result = kToken;
            return hasToken ? TRUE : FALSE;
        });
        const HookedImport<&createEnvironmentBlock> environment(
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
    constexpr wchar_t kAppPath[] =
        LR"(SOFTWARE\Microsoft\Windows\CurrentVersion\App Paths\Orvik.exe)";
    using Open = HookedImport<&__imp_RegOpenKeyExW>;
    const Open open(
        [&](HKEY root, const wchar_t* path, DWORD options, REGSAM access, HKEY* key) -> LSTATUS {
            if (root == HKEY_LOCAL_MACHINE && path == std::wstring(kAppPath))
                calls += "read path\n";
            return Open::Original(root, path, options, access, key);
        });
    for (const BOOL result : {FALSE, 2}) {  // exactly TRUE is success
        SCOPED_TRACE(result);
        output.Clear();
        calls.clear();
        environmentResult = result;
        Arrive();
        EXPECT_EQ(calls,
                  "token\nenvironment of token\nread path\nclose token\nclose null\nclose null\n");
        EXPECT_EQ(output.Out(), kLaunching);
        EXPECT_EQ(output.Error(), "Failed to get User Environment for App launch.\n");
    }
}

TEST(SystemFunction, IsNullIfSystem32DoesNotHaveTheDllOrTheDllTheFunction) {
    using Function = decltype(&::CloseHandle);
    EXPECT_EQ(SystemFunction<Function>(L"no_such.dll", "CloseHandle"), nullptr);
    EXPECT_EQ(SystemFunction<Function>(L"userenv.dll", "CloseHandle"), nullptr);
    EXPECT_NE(SystemFunction<Function>(L"kernel32.dll", "CloseHandle"), nullptr);
}

}  // namespace
