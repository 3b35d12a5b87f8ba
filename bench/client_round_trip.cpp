// Compares the time of a synchronous transfer of the client library, and of its C interface, with
// that of a client that calls nothing but WriteFile and ReadFile. They take turns, so that other
// load on the machine slows all of them.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iomanip>
#include <iostream>
#include <span>
#include <stdexcept>
#include <vector>

#include <windows.h>

#include "orvik/client.h"
#include "orvik/orvik.h"
#include "orvik/persistent_client.h"
#include "protocol/message.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "windows/unique_handle.h"

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr orvik::CameraId kCamera = 1;
constexpr int kCallsInTurn = 10;

/// A client with the necessary system calls only.
class BareClient {
public:
    BareClient() {
        while (!pipe) {
            ::WaitNamedPipeW(kCameraPipeName, NMPWAIT_WAIT_FOREVER);
            pipe = OwnFile(::CreateFileW(kCameraPipeName, GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                         OPEN_EXISTING,
                                         SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
        }
        Read(sizeof(MessageHeader));  // the camera
    }

    void Transfer(TransferType type, std::span<const std::byte> cdb) {
        std::array<std::byte, sizeof(MessageHeader) + kCdbFieldSize> request{};
        const MessageHeader header{type, ++newest, kCamera, kCdbFieldSize};
        std::memcpy(request.data(), &header, sizeof(header));
        std::memcpy(request.data() + sizeof(header), cdb.data(), cdb.size());
        DWORD count = 0;
        if (!::WriteFile(pipe.get(), request.data(), static_cast<DWORD>(request.size()), &count,
                         nullptr))
            throw std::runtime_error("WriteFile");
        Read(sizeof(MessageHeader));
        MessageHeader answer{};
        std::memcpy(&answer, buffer.data(), sizeof(answer));
        if (answer.messageType != kTransferSucceeded || answer.requestId != newest)
            throw std::runtime_error("the answer is not what was expected");
        Read(answer.bodyLength);
    }

private:
    void Read(std::size_t size) {
        for (std::size_t received = 0; received < size;) {
            DWORD count = 0;
            if (!::ReadFile(pipe.get(), buffer.data() + received,
                            static_cast<DWORD>(size - received), &count, nullptr))
                throw std::runtime_error("ReadFile");
            received += count;
        }
    }

    UniqueHandle pipe;
    std::uint32_t newest = 0;
    std::vector<std::byte> buffer = std::vector<std::byte>(orvik::kTransferInLimit);
};

/// The value that a part of the values is below: 0.5 for the median.
double Quantile(std::vector<double> values, double part) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(part * static_cast<double>(values.size()))];
}

/// One way to make a transfer, and the way that it is compared with.
struct Way {
    const char* name;
    std::function<void()> call;
    std::size_t comparedWith;
    std::vector<double> times{};  // microseconds
};

/// The ways take turns after a few calls. Each round begins with another one.
void Compare(const char* name, std::size_t rounds, std::vector<Way> ways) {
    for (std::size_t round = 0; round < rounds; ++round) {
        for (std::size_t i = 0; i < ways.size(); ++i) {
            Way& way = ways[(round + i) % ways.size()];
            for (int call = 0; call < kCallsInTurn; ++call) {
                const auto start = Clock::now();
                way.call();
                way.times.push_back(Microseconds(Clock::now() - start).count());
            }
        }
    }
    std::cout << name << ": microseconds; median, lower quartile\n"
              << std::fixed << std::setprecision(1);
    for (const Way& way : ways) {
        std::cout << "  " << std::left << std::setw(22) << way.name << std::right;
        for (const double part : {0.5, 0.25})
            std::cout << std::setw(9) << Quantile(way.times, part);
        const Way& other = ways[way.comparedWith];
        if (&way != &other) {
            for (const double part : {0.5, 0.25})
                std::cout << std::setw(7)
                          << (Quantile(way.times, part) / Quantile(other.times, part) - 1) * 100
                          << " %";
            std::cout << " more than " << other.name;
        }
        std::cout << std::endl;
    }
}

/// A client of the C interface. Throws what it says.
class CClient {
public:
    enum class Kind { kPlain, kPersistent };

    explicit CClient(Kind kind) {
        Require(kind == Kind::kPlain ? orvik_client_connect(nullptr, &client)
                                     : orvik_client_open(nullptr, &client));
        std::uint32_t count = 0;
        while (count == 0) {
            Require(orvik_client_cameras(client, &camera, 1, &count));
            ::Sleep(1);  // no event of this benchmark reports that it has connected
        }
    }
    ~CClient() { orvik_client_close(client); }

    CClient(const CClient&) = delete;
    CClient& operator=(const CClient&) = delete;

    void NoData(std::span<const std::byte> cdb) {
        Require(orvik_transfer_no_data(client, camera, Bytes(cdb), Length(cdb),
                                       ORVIK_TRANSFER_TIMEOUT));
    }

    void In(std::span<const std::byte> cdb) {
        std::uint32_t length = 0;
        Require(orvik_transfer_in(client, camera, Bytes(cdb), Length(cdb), buffer.data(),
                                  ORVIK_TRANSFER_IN_LIMIT, &length, ORVIK_TRANSFER_TIMEOUT));
    }

private:
    static void Require(orvik_status status) {
        if (status != ORVIK_OK)
            throw std::runtime_error(orvik_last_error_text());
    }
    static const std::uint8_t* Bytes(std::span<const std::byte> cdb) {
        return reinterpret_cast<const std::uint8_t*>(cdb.data());
    }
    static std::uint32_t Length(std::span<const std::byte> cdb) {
        return static_cast<std::uint32_t>(cdb.size());
    }

    orvik_client* client = nullptr;
    orvik_camera camera = 0;
    std::vector<std::byte> buffer = std::vector<std::byte>(ORVIK_TRANSFER_IN_LIMIT);
};

void Run() {
    vcam::Bus bus;
    bus.UnplugAll();
    const PluggedCamera plugged(bus);
    const system_test::RunningService service(system_test::RunMode::kServiceManager);

    BareClient bare;
    orvik::Client client;
    orvik::PersistentClient persistent;
    while (persistent.Cameras().empty())
        ::Sleep(1);  // no event of this benchmark reports that it has connected
    const orvik::Camera camera = persistent.Cameras().front();
    CClient cPlain(CClient::Kind::kPlain);
    CClient cPersistent(CClient::Kind::kPersistent);

    const auto compare = [&](const char* name, std::size_t rounds, std::span<const std::byte> cdb) {
        Compare(name, rounds,
                {{"bare", [&] { bare.Transfer(kTransferIn, cdb); }, 0},
                 {"Client", [&] { client.TransferIn(kCamera, cdb); }, 0},
                 {"PersistentClient", [&] { persistent.TransferIn(camera, cdb); }, 0},
                 {"C, plain client", [&] { cPlain.In(cdb); }, 1},
                 {"C, persistent client", [&] { cPersistent.In(cdb); }, 2}});
    };
    const auto ready = orvik::TestUnitReadyCdb();
    Compare("TEST UNIT READY", 400,
            {{"bare", [&] { bare.Transfer(kTransferNoData, ready); }, 0},
             {"Client", [&] { client.TransferNoData(kCamera, ready); }, 0},
             {"PersistentClient", [&] { persistent.TransferNoData(camera, ready); }, 0},
             {"C, plain client", [&] { cPlain.NoData(ready); }, 1},
             {"C, persistent client", [&] { cPersistent.NoData(ready); }, 2}});
    compare("INQUIRY, 36 bytes", 400, orvik::InquiryCdb());
    compare("READ(6), 65536 bytes", 200, orvik::Read6Cdb(0, 128));
}

}  // namespace

int main() {
    try {
        Run();
        return 0;
    } catch (const std::exception& exception) {
        std::cerr << exception.what() << '\n';
        return 1;
    }
}
