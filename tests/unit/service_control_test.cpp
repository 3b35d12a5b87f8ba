// What orvikctl status says about the service, for answers of the service control manager that the
// test chooses. Nothing is installed.

#include "service_control.h"

#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "exit_code.h"
#include "fake_service_manager.h"

namespace {

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
