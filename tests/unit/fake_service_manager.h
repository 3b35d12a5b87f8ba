// What the tests of orvikctl's look at the installed service share.
#pragma once

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
