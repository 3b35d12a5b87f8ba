// Compares the time of a synchronous transfer of the client library with that of a client that
// calls nothing but WriteFile and ReadFile. The two take turns, so that other load on the machine
// slows both.

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <stdexcept>
#include <vector>

#include <windows.h>

#include "orvik/client.h"
#include "protocol/message.h"
#include "support/plugged_camera.h"
#include "system_test.h"
#include "windows/unique_handle.h"

namespace {

using Clock = std::chrono::steady_clock;
using Microseconds = std::chrono::duration<double, std::micro>;

constexpr orvik::CameraId kCamera = 1;
constexpr int kTurns = 30;

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

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Microseconds per call.
template <typename Call>
double Measure(int calls, Call call) {
    const auto start = Clock::now();
    for (int i = 0; i < calls; ++i)
        call();
    return Microseconds(Clock::now() - start).count() / calls;
}

template <typename Bare, typename Library>
void Compare(const char* name, int calls, Bare bare, Library library) {
    std::vector<double> bareTimes;
    std::vector<double> libraryTimes;
    std::vector<double> ratios;
    for (int turn = 0; turn < kTurns; ++turn) {
        bareTimes.push_back(Measure(calls, bare));
        libraryTimes.push_back(Measure(calls, library));
        ratios.push_back(libraryTimes.back() / bareTimes.back());
    }
    std::cout << std::left << std::setw(28) << name << std::right << std::fixed
              << std::setprecision(1) << std::setw(10) << Median(bareTimes) << std::setw(10)
              << Median(libraryTimes) << std::setw(9) << (Median(ratios) - 1) * 100 << " %"
              << std::endl;
}

void Run() {
    vcam::Bus bus;
    bus.UnplugAll();
    const PluggedCamera camera(bus);
    const system_test::RunningService service(system_test::RunMode::kServiceManager);

    BareClient bare;
    orvik::Client client;

    std::cout << "microseconds per round trip        bare   library     more\n";
    Compare(
        "TEST UNIT READY", 200, [&] { bare.Transfer(kTransferNoData, orvik::TestUnitReadyCdb()); },
        [&] { client.TransferNoData(kCamera, orvik::TestUnitReadyCdb()); });
    Compare(
        "INQUIRY, 36 bytes", 200, [&] { bare.Transfer(kTransferIn, orvik::InquiryCdb()); },
        [&] { client.TransferIn(kCamera, orvik::InquiryCdb()); });
    Compare(
        "READ(6), 65536 bytes", 50, [&] { bare.Transfer(kTransferIn, orvik::Read6Cdb(0, 128)); },
        [&] { client.TransferIn(kCamera, orvik::Read6Cdb(0, 128)); });
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
