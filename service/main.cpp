#include <cstring>
#include <exception>
#include <iostream>
#include <string>

#include <windows.h>

#include "protocol/message.h"
#include "service/service_main.h"
#include "service/wide_output.h"

/// Runs as the service OrvikService, or in the foreground with the single argument
/// "--commandline". The exit code is 0 also after a failure, which is on standard error.
int main(int argc, char* argv[]) {
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
