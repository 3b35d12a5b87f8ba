#pragma once

#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "import_hook.h"

extern "C" decltype(&::CreateNamedPipeW) __imp_CreateNamedPipeW;

/// Sees how pipe instances are made, and the handle of the one that listens.
class PipeCreation {
public:
    PipeCreation() : hook(&__imp_CreateNamedPipeW, Create) { current = this; }
    ~PipeCreation() { current = nullptr; }

    HANDLE listening = nullptr;
    std::wstring name;
    DWORD openMode = 0;
    DWORD pipeMode = 0;
    DWORD instances = 0;
    DWORD outSize = 0;
    DWORD inSize = 0;
    DWORD timeOut = 1;
    BOOL inherit = TRUE;

private:
    static HANDLE WINAPI Create(LPCWSTR pipe, DWORD open, DWORD mode, DWORD maximum, DWORD out,
                                DWORD in, DWORD wait, LPSECURITY_ATTRIBUTES security) {
        PipeCreation& self = *current;
        self.name = pipe;
        self.openMode = open;
        self.pipeMode = mode;
        self.instances = maximum;
        self.outSize = out;
        self.inSize = in;
        self.timeOut = wait;
        self.inherit = security->bInheritHandle;
        self.listening = self.hook.Original()(pipe, open, mode, maximum, out, in, wait, security);
        return self.listening;
    }

    static inline PipeCreation* current = nullptr;
    ImportHook<decltype(&::CreateNamedPipeW)> hook;
};
