// The desktop application of scripts/demo: connects to the service that has started it, and writes
// the cameras that the service announces into a file beside itself.

#include <exception>
#include <filesystem>
#include <fstream>
#include <string>

#include <windows.h>

#include "orvik/client.h"

int main() {
    wchar_t program[1024] = L"";
    ::GetModuleFileNameW(nullptr, program, 1024);
    const std::filesystem::path log = std::filesystem::path(program).replace_extension(L".log");
    std::string line = "The service has started this desktop application";
    try {
        const orvik::Client client;
        line += " and announced camera";
        for (const orvik::CameraId camera : client.Cameras())
            line += " " + std::to_string(camera);
    } catch (const std::exception& exception) {
        line += std::string("; connecting failed: ") + exception.what();
    }
    // By a rename, so that a script that waits for the file finds the whole line in it.
    const std::filesystem::path unfinished = log.wstring() + L".part";
    std::ofstream(unfinished) << line << ".\n";
    std::filesystem::rename(unfinished, log);
    return 0;
}
