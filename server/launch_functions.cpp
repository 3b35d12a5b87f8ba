#include "server/launch_functions.h"

#include "windows/system_dll.h"

namespace {

BOOL WINAPI LoadAndQueryUserToken(ULONG session, HANDLE* token) {
    static const auto function =
        SystemFunction<decltype(&::WTSQueryUserToken)>(L"wtsapi32.dll", "WTSQueryUserToken");
    return function != nullptr ? function(session, token) : FALSE;
}

BOOL WINAPI LoadAndCreateEnvironmentBlock(void** block, HANDLE token, BOOL inherit) {
    static const auto function = SystemFunction<decltype(&::CreateEnvironmentBlock)>(
        L"userenv.dll", "CreateEnvironmentBlock");
    return function != nullptr ? function(block, token, inherit) : FALSE;
}

}  // namespace

decltype(&::WTSQueryUserToken) queryUserToken = LoadAndQueryUserToken;
decltype(&::CreateEnvironmentBlock) createEnvironmentBlock = LoadAndCreateEnvironmentBlock;
