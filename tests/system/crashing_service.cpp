// The service, but for what happens when a client connects. It then crashes, on the dispatcher's
// thread, in the way that its first argument names:
//
//   crashing_service [--commandline] KIND FOLDER [TEMPORARY]
//
// Its log goes below the folder. Its temporary folder is "temp" in there, or that which is given.

#include <array>
#include <cstdlib>
#include <string>

#include <windows.h>

#include <shellapi.h>

#include "log/log_system.h"
#include "protocol/message.h"
#include "service/service_main.h"
#include "tests/unit/import_hook.h"

extern "C" decltype(&::ReadFile) __imp_ReadFile;

namespace crashing_service {

// Not local to this file: the compiler isn't to know all the classes there are.
class Crasher {
public:
    Crasher(const Crasher&) = delete;
    Crasher& operator=(const Crasher&) = delete;
    virtual ~Crasher() = default;
    virtual void Crash() = 0;

protected:
    Crasher() {
        void (*volatile call)(Crasher&) = [](Crasher& incomplete) { incomplete.Crash(); };
        call(*this);
    }
};

class CallsPureVirtual : public Crasher {
public:
    void Crash() override {}
};

}  // namespace crashing_service

namespace {

void Fault() {
    // Not null: the preset "checked" has a trap of its own for that.
    auto* const nothing =
        static_cast<volatile int*>(::VirtualAlloc(nullptr, 1, MEM_RESERVE, PAGE_NOACCESS));
    *nothing = 1;
}

void CallPureVirtual() {
    const crashing_service::CallsPureVirtual crasher;
}

void PassInvalidParameter() {
    const wchar_t* volatile nothing = nullptr;
    std::array<wchar_t, _MAX_FNAME> name{};
    const errno_t error =
        ::_wsplitpath_s(nothing, nullptr, 0, nullptr, 0, name.data(), name.size(), nullptr, 0);
    LogPrintf(kLogError, "test", __FILE__, __LINE__, "the C runtime returned %d", error);
}

struct Kind {
    const wchar_t* name;
    void (*crash)();
};
constexpr Kind kKinds[] = {
    {L"fault", Fault},
    {L"pure-call", CallPureVirtual},
    {L"invalid-parameter", PassInvalidParameter},
};

void (*crash)() = nullptr;  // none: it does not crash
DWORD dispatcherThread = 0;
decltype(&::ReadFile) original = nullptr;

BOOL WINAPI Read(HANDLE file, void* buffer, DWORD size, DWORD* count, OVERLAPPED* overlapped) {
    if (crash != nullptr && ::GetCurrentThreadId() == dispatcherThread)
        crash();
    return original(file, buffer, size, count, overlapped);
}

void WINAPI Run(DWORD argc, LPWSTR* argv) {
    dispatcherThread = ::GetCurrentThreadId();
    ServiceMain(argc, argv);
}

}  // namespace

int main() {
    ::SetErrorMode(SEM_NOGPFAULTERRORBOX);  // no user sees a dialog
    int count = 0;
    wchar_t** arguments = ::CommandLineToArgvW(::GetCommandLineW(), &count);
    if (count > 1 && std::wstring(arguments[1]) == L"--commandline") {
        runningAsService = 0;
        ++arguments;
        --count;
    }
    if (count < 3)
        return 1;
    for (const Kind& kind : kKinds) {
        if (std::wstring(arguments[1]) == kind.name)
            crash = kind.crash;
    }
    const std::wstring folder = arguments[2];
    ::SetEnvironmentVariableW(L"USERPROFILE", folder.c_str());
    ::SetEnvironmentVariableW(
        L"TMP", (count > 3 ? std::wstring(arguments[3]) : folder + L"\\temp").c_str());

    const ImportHook<decltype(&::ReadFile)> hook(&__imp_ReadFile, Read);
    original = hook.Original();
    if (!runningAsService) {
        Run(0, nullptr);
        return 0;
    }
    std::wstring name = kServiceName;
    const SERVICE_TABLE_ENTRYW table[] = {{name.data(), Run}, {nullptr, nullptr}};
    ::StartServiceCtrlDispatcherW(table);
    return 0;
}
