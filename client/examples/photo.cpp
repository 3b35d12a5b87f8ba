// Copies the first MiB of a camera's memory into a file: photo FILE. Waits for a camera. If it is
// unplugged, or the service ends, during the copy, waits for the next one. Ctrl-C ends the program.
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <mutex>

#include <orvik/persistent_client.h>
#include <windows.h>

constexpr std::uint32_t kBlocks = 128;  // of 512 bytes: as much as one transfer returns
constexpr std::uint32_t kTransfers = 16;
constexpr std::uint32_t kOutstanding = 4;  // so that the camera does not wait for this program

static std::mutex mutex;
static std::condition_variable changed;
static bool interrupted = false;

/// Changes something that the main thread waits for.
static void Change(const std::function<void()>& change) {
    const std::lock_guard lock(mutex);
    change();
    changed.notify_all();
}

static BOOL WINAPI OnConsoleControl(DWORD type) {
    Change([] { interrupted = true; });
    ::Sleep(type == CTRL_CLOSE_EVENT ? INFINITE : 0);  // Windows ends the program afterwards
    return TRUE;
}

static std::string Read(orvik::PersistentClient& client, const orvik::Camera& camera) {
    // Shared with the completions, because some are called after an error has ended this function.
    auto results = std::make_shared<std::vector<std::optional<orvik::TransferResult>>>(kTransfers);
    std::string photo;
    for (std::uint32_t next = 0, started = 0; next < kTransfers; ++next) {
        for (; started < kTransfers && started < next + kOutstanding; ++started)
            client.StartTransferIn(camera, orvik::Read6Cdb(started * kBlocks, kBlocks),
                                   [results, started](const orvik::TransferResult& result) {
                                       Change([&] { results->at(started) = result; });
                                   });
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return interrupted || results->at(next); });
        if (interrupted)
            break;
        const auto& [error, data] = *results->at(next);
        if (error)
            throw orvik::Error(*error);
        photo.append(reinterpret_cast<const char*>(data.data()), data.size());
        std::cout << '\r' << photo.size() / 1024 << " of 1024 KiB" << std::flush;
    }
    return photo;
}

int main(int argc, char** argv) {
    if (argc != 2 || !::SetConsoleCtrlHandler(OnConsoleControl, TRUE))
        return 2;
    orvik::PersistentClient client;
    const auto events = client.Subscribe([](const auto&) { Change([] {}); });
    std::cout << "waiting for a camera" << std::endl;
    std::string photo;
    for (orvik::Camera camera; photo.size() != kTransfers * orvik::kTransferInLimit;) {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&, last = camera] {
            for (const orvik::Camera& present : client.Cameras())
                camera = present;
            return interrupted || camera != last;
        });
        if (interrupted)
            return 1;
        lock.unlock();
        try {
            photo = Read(client, camera);
        } catch (const orvik::Error& error) {
            std::cout << '\n' << error.what() << "\nwaiting for a camera" << std::endl;
        }
    }
    std::ofstream(argv[1], std::ios::binary) << photo;
}
