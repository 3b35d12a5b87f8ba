// Starts the desktop application when a camera arrives and no main communicator is connected.

#include <iostream>

#include <windows.h>

#include "server/application_path.h"
#include "server/launch_functions.h"
#include "server/server.h"

void Server::LaunchApplication() noexcept {
    HANDLE token = nullptr;
    if (!queryUserToken(::WTSGetActiveConsoleSessionId(), &token)) {
        std::cerr << "Failed to get user token to launch application.\n";
        return;
    }
    std::cout << "Launching application..." << std::endl;

    wchar_t desktop[] = LR"(winsta0\default)";
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.lpDesktop = desktop;
    startup.dwFlags = STARTF_USESHOWWINDOW | STARTF_FORCEONFEEDBACK;
    startup.wShowWindow = SW_SHOWNORMAL;
    PROCESS_INFORMATION process{};

    // The block is never destroyed: one per launch stays allocated, on purpose.
    void* environment = nullptr;
    const bool hasEnvironment = createEnvironmentBlock(&environment, token, FALSE) == TRUE;
    ApplicationPath registered{};
    const wchar_t* const path = FindApplicationPath(registered);
    if (hasEnvironment) {
        ::CreateProcessAsUserW(token, path, nullptr, nullptr, nullptr, FALSE,
                               CREATE_UNICODE_ENVIRONMENT | DETACHED_PROCESS, environment, nullptr,
                               &startup, &process);
    } else {
        std::cerr << "Failed to get User Environment for App launch.\n";
    }
    // The process and thread handles are null when nothing was started, which closing ignores.
    ::CloseHandle(token);
    ::CloseHandle(process.hProcess);
    ::CloseHandle(process.hThread);
}

void Server::LaunchIfNoMainCommunicator() noexcept {
    // No copy, as GetMainCommunicator() makes one: if the dispatcher thread removed the client
    // meanwhile, this thread would destroy it.
    if (!mainCommunicator)
        LaunchApplication();
}
