#pragma once

#include <windows.h>

void Disconnect(HANDLE pipe, bool newestRequestSucceeded, ULONG processOfService);
