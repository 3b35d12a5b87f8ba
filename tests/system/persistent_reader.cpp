// An application of the storm test: persistent_reader EVENT. Reads from each camera as long as it
// is there. Prints "read" after the first read of each camera, and "none" when the last camera has
// gone. Disconnects and ends when the event EVENT is signalled.

#include <exception>
#include <iostream>
#include <vector>

#include <windows.h>

#include "orvik/persistent_client.h"
#include "windows/unique_handle.h"

namespace {

void ReadUntil(HANDLE end) {
    orvik::ConnectOptions options;
    options.checkServer = false;
    orvik::PersistentClient client(options);
    orvik::Camera last;
    bool none = true;
    // A subscription would need no look every millisecond, but would test less.
    for (DWORD pause = 0; ::WaitForSingleObject(end, pause) == WAIT_TIMEOUT;) {
        const std::vector<orvik::Camera> cameras = client.Cameras();
        pause = cameras.empty() ? 1 : 0;
        if (cameras.empty()) {
            if (!none)
                std::cout << "none" << std::endl;
            none = true;
            continue;
        }
        none = false;
        try {
            client.TransferIn(cameras.back(), orvik::InquiryCdb());
            if (last != cameras.back())
                std::cout << "read" << std::endl;
            last = cameras.back();
        } catch (const orvik::Error& error) {
            const orvik::ErrorKind kind = error.Kind();
            if (kind != orvik::ErrorKind::kRefused && kind != orvik::ErrorKind::kCameraGone &&
                kind != orvik::ErrorKind::kNoSuchCamera)
                std::cerr << error.what() << std::endl;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    try {
        const UniqueHandle end(::OpenEventA(SYNCHRONIZE, FALSE, argv[1]));
        if (!end)
            return 1;
        ReadUntil(end.get());
        return 0;
    } catch (const std::exception& exception) {
        std::cerr << exception.what() << std::endl;
        return 1;
    }
}
