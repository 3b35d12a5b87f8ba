// Stands in for the desktop application in scripts/demo: connects to the service that has started
// it, and writes a line about what it finds into a file beside itself.

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
    std::string line = "I am the desktop application. The service has started me";
    try {
        const orvik::Client client;
        line += " and tells me of camera";
        for (const orvik::CameraId camera : client.Cameras())
            line += " " + std::to_string(camera);
    } catch (const std::exception& exception) {
        line += std::string(", but: ") + exception.what();
    }
    // All at once: whoever waits for the file sees the whole line.
    const std::filesystem::path unfinished = log.wstring() + L".part";
    std::ofstream(unfinished) << line << ".\n";
    std::filesystem::rename(unfinished, log);
    return 0;
}
