// What orvikctl status says about the service, for answers of the service control manager that the
// test chooses. Nothing is installed.

#include "service_control.h"

#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "exit_code.h"
#include "import_hook.h"

extern "C" {
extern decltype(&::CloseServiceHandle) __imp_CloseServiceHandle;
extern decltype(&::OpenSCManagerW) __imp_OpenSCManagerW;
extern decltype(&::OpenServiceW) __imp_OpenServiceW;
extern decltype(&::QueryServiceConfigW) __imp_QueryServiceConfigW;
extern decltype(&::QueryServiceStatusEx) __imp_QueryServiceStatusEx;
}

namespace {

/// A service control manager. Each of its calls fails with the error of its name, if that is not 0.
class FakeManager {
public:
    FakeManager()
        : openManager([this](const wchar_t*, const wchar_t*, DWORD) {
              return Succeeds(managerError) ? Open() : nullptr;
          }),
          openService([this](SC_HANDLE, const wchar_t*, DWORD) {
              return Succeeds(serviceError) ? Open() : nullptr;
          }),
          close([this](SC_HANDLE) {
              --openHandles;
              return TRUE;
          }),
          queryStatus([this](SC_HANDLE, SC_STATUS_TYPE, BYTE* to, DWORD size, DWORD*) {
              if (Succeeds(queryError))
                  std::memcpy(to, &status, size);
              return queryError == 0 ? TRUE : FALSE;
          }),
          queryConfig([this](SC_HANDLE, QUERY_SERVICE_CONFIGW* to, DWORD, DWORD*) {
              if (Succeeds(queryError))
                  *to = config;
              return queryError == 0 ? TRUE : FALSE;
          }) {}
    ~FakeManager() { EXPECT_EQ(openHandles, 0); }

    DWORD managerError = 0;
    DWORD serviceError = 0;
    DWORD queryError = 0;
    SERVICE_STATUS_PROCESS status{};
    QUERY_SERVICE_CONFIGW config{};

private:
    static bool Succeeds(DWORD error) {
        ::SetLastError(error);
        return error == 0;
    }
    SC_HANDLE Open() {
        ++openHandles;
        return reinterpret_cast<SC_HANDLE>(this);
    }

    int openHandles = 0;
    HookedImport<&__imp_OpenSCManagerW> openManager;
    HookedImport<&__imp_OpenServiceW> openService;
    HookedImport<&__imp_CloseServiceHandle> close;
    HookedImport<&__imp_QueryServiceStatusEx> queryStatus;
    HookedImport<&__imp_QueryServiceConfigW> queryConfig;
};

TEST(ServiceControl, EachStateHasItsWord) {
    FakeManager manager;
    std::string words;
    for (DWORD state = 0; state <= 8; ++state) {
        manager.status.dwCurrentState = state;
        words += ServiceState() + "\n";
    }
    EXPECT_EQ(words,
              "state 0\nstopped\nstarting\nstopping\nrunning\npaused\npaused\npaused\nstate 8\n");
}

TEST(ServiceControl, StateOfAServiceThatHasFailedHasTheCause) {
    FakeManager manager;
    manager.status.dwCurrentState = SERVICE_STOPPED;
    manager.status.dwWin32ExitCode = ERROR_SERVICE_SPECIFIC_ERROR;
    manager.status.dwServiceSpecificExitCode = 42;
    EXPECT_EQ(ServiceState(), "stopped: service-specific error 42");
    manager.status.dwWin32ExitCode = ERROR_PROCESS_ABORTED;
    EXPECT_EQ(ServiceState(), SystemFailure("stopped", ERROR_PROCESS_ABORTED).what());
}

TEST(ServiceControl, EachStartTypeHasItsWord) {
    FakeManager manager;
    std::string words;
    for (DWORD type = 1; type <= 5; ++type) {
        manager.config.dwStartType = type;
        words += ServiceStartType() + "\n";
    }
    EXPECT_EQ(words, "type 1\nautomatic\nmanual\ndisabled\ntype 5\n");
}

/// The text of the failure of a call.
template <typename Call>
std::string FailureOf(Call call) {
    try {
        call();
    } catch (const Failure& failure) {
        return failure.what();
    }
    ADD_FAILURE() << "no failure";
    return {};
}

TEST(ServiceControl, FailureNamesTheStepAndGivesTheSystemsError) {
    FakeManager manager;
    const auto expect = [](auto call, const char* text, DWORD error) {
        EXPECT_EQ(FailureOf(call), SystemFailure(text, error).what());
    };
    manager.queryError = ERROR_INVALID_HANDLE;
    expect(ServiceState, "cannot query the status of the service OrvikService",
           ERROR_INVALID_HANDLE);
    expect(ServiceStartType, "cannot query the configuration of the service OrvikService",
           ERROR_INVALID_HANDLE);
    manager.serviceError = ERROR_ACCESS_DENIED;
    expect(IsServiceInstalled, "cannot open the service OrvikService", ERROR_ACCESS_DENIED);
    manager.managerError = ERROR_DATABASE_DOES_NOT_EXIST;
    expect(IsServiceInstalled, "cannot connect to the service control manager",
           ERROR_DATABASE_DOES_NOT_EXIST);
}

TEST(ServiceControl, OnlyTheErrorThatSaysSoMeansThatItIsNotInstalled) {
    FakeManager manager;
    EXPECT_TRUE(IsServiceInstalled());
    manager.serviceError = ERROR_SERVICE_DOES_NOT_EXIST;
    EXPECT_FALSE(IsServiceInstalled());
    EXPECT_EQ(FailureOf(ServiceProcess), "the service OrvikService is not installed");
}

}  // namespace
