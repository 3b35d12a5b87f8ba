// Functions that start the desktop application, of DLLs that are no known DLLs
// (windows/system_dll.h). Called through pointers, which tests replace.
#pragma once

#include <windows.h>

#include <userenv.h>
#include <wtsapi32.h>

/// WTSQueryUserToken and CreateEnvironmentBlock. The first call of each loads its DLL; if that
/// fails, the function returns FALSE. Thread: any.
extern decltype(&::WTSQueryUserToken) queryUserToken;
extern decltype(&::CreateEnvironmentBlock) createEnvironmentBlock;
