#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include <windows.h>

#include "protocol/message.h"
#include "service/service_main.h"
#include "service/wide_output.h"
#include "windows/system_dll.h"

/// Runs as the service OrvikService, or in the foreground with the single argument
/// "--commandline". The exit code is 0, also after an exception in the foreground, which is written
/// to standard error. A service whose run ends by an exception does not get here: its process ends
/// with the exit code 0xE04F5256 (see ServiceMain()).
int main(int argc, char* argv[]) {
    LoadDllsFromSystemFolderOnly();
    const WideOutput wideOutput;
    try {
        if (argc == 2 && std::strcmp(argv[1], "--commandline") == 0) {
            runningAsService = 0;
            ServiceMain(2, nullptr);
        } else {
            std::wstring name = kServiceName;
            const SERVICE_TABLE_ENTRYW table[] = {{name.data(), ServiceMain}, {nullptr, nullptr}};
            ::StartServiceCtrlDispatcherW(table);
        }
    } catch (const std::exception& exception) {
        std::cerr << "Exception: " << exception.what() << std::endl;
    }
    return 0;
}
