// Reads the whole memory of the first camera into a file: read_file FILE. Several transfers are
// outstanding at a time, so that the camera never waits for this program.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <fstream>
#include <future>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <orvik/client.h>

namespace {

constexpr std::size_t kOutstanding = 4;

/// Starts a read and returns at once. The future receives the data, or the error.
std::future<std::vector<std::byte>> StartRead(orvik::Client& client, orvik::CameraId camera,
                                              std::uint32_t first, std::uint32_t count) {
    auto promise = std::make_shared<std::promise<std::vector<std::byte>>>();
    client.StartTransferIn(camera, orvik::Read6Cdb(first, count),
                           [promise](orvik::TransferResult result) {
                               if (result.error)
                                   promise->set_exception(std::make_exception_ptr(*result.error));
                               else
                                   promise->set_value(std::move(result.data));
                           });
    return promise->get_future();
}

void ReadFile(const char* path) {
    orvik::Client client;
    const auto cameras = client.Cameras();
    if (cameras.empty())
        throw std::runtime_error("no camera is present");
    const orvik::CameraId camera = cameras.front();
    const auto capacity =
        orvik::DecodeCapacity(client.TransferIn(camera, orvik::ReadCapacityCdb()));
    if (capacity.blockCount > orvik::kRead6BlockLimit ||
        capacity.blockLength > orvik::kTransferInLimit)
        throw std::runtime_error("the camera is too large for READ(6)");
    const auto blocks = static_cast<std::uint32_t>(capacity.blockCount);
    const auto most =
        std::min(orvik::kRead6CountLimit,
                 static_cast<std::uint32_t>(orvik::kTransferInLimit / capacity.blockLength));

    std::ofstream file(path, std::ios::binary);
    struct Piece {
        std::size_t length;
        std::future<std::vector<std::byte>> data;
    };
    std::deque<Piece> outstanding;
    for (std::uint32_t next = 0; next < blocks || !outstanding.empty();) {
        while (next < blocks && outstanding.size() < kOutstanding) {
            const std::uint32_t count = std::min(most, blocks - next);
            outstanding.push_back({std::size_t{count} * capacity.blockLength,
                                   StartRead(client, camera, next, count)});
            next += count;
        }
        const std::vector<std::byte> data = outstanding.front().data.get();
        if (data.size() != outstanding.front().length)
            throw std::runtime_error("the camera returned fewer bytes than it was asked for");
        outstanding.pop_front();
        file.write(reinterpret_cast<const char*>(data.data()),
                   static_cast<std::streamsize>(data.size()));
    }
    if (!file.flush())
        throw std::runtime_error("the file could not be written");
    std::cout << "read " << blocks << " blocks\n";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: read_file FILE\n";
        return 2;
    }
    try {
        ReadFile(argv[1]);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "error: " << error.what() << '\n';
        return 1;
    }
}
