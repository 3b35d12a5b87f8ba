// Races of cancels, unplugging and opens.

#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "virtual_camera_fixture.h"

namespace camera_test {
namespace {

using namespace std::chrono_literals;

TEST_F(VirtualCamera, CancelsThatRaceWithTheEndLoseNoRequest) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.delay = 1ms;
    Set(behaviour);
    int cancelled = 0;
    int finished = 0;
    for (int round = 0; round < 300; ++round) {
        std::array<std::unique_ptr<Transfer>, 4> reads;
        for (auto& read : reads) {
            read = std::make_unique<Transfer>(UCHAR{SCSI_IOCTL_DATA_IN}, Read6(0, 1), 512);
            ASSERT_EQ(read->Issue(device.get()), DWORD{ERROR_IO_PENDING});
        }
        if (round % 2 == 0)
            reads[0]->Await();  // about when the others end too
        ::CancelIoEx(device.get(), nullptr);
        for (auto& read : reads) {
            const DWORD error = read->Await();
            ASSERT_TRUE(error == 0 || error == ERROR_OPERATION_ABORTED) << error;
            ++(error == 0 ? finished : cancelled);
        }
    }
    EXPECT_EQ(finished + cancelled, 1200);
    EXPECT_GT(finished, 0);
    EXPECT_GT(cancelled, 0);
    EXPECT_EQ(bus.Counters(id).pending, 0u);
    EXPECT_EQ(bus.Counters(id).requests, 1200u);
}

/// Issues requests until the camera refuses one, and waits for all of them: no thread may end
/// before its requests have. Returns how many were pended; throws if one does not end, or ends in
/// any other way than by the unplugging.
std::size_t IssueUntilUnplugged(HANDLE device) {
    std::vector<std::unique_ptr<Transfer>> transfers;
    DWORD refusal = ERROR_SUCCESS;
    for (;;) {
        auto transfer = std::make_unique<Transfer>(UCHAR{SCSI_IOCTL_DATA_IN}, Read6(0, 1), 512);
        refusal = transfer->Issue(device);
        if (refusal != ERROR_IO_PENDING)
            break;
        transfers.push_back(std::move(transfer));
    }
    if (refusal != ERROR_DEVICE_NOT_CONNECTED)
        throw std::runtime_error("refused with error " + std::to_string(refusal));
    for (auto& transfer : transfers) {
        const DWORD error = transfer->Await();
        if (error == ERROR_TIMEOUT) {
            for (auto& pending : transfers)
                static_cast<void>(pending.release());  // the system may still write to them
            throw std::runtime_error("a request does not end");
        }
        if (error != ERROR_DEVICE_NOT_CONNECTED)
            throw std::runtime_error("ended with error " + std::to_string(error));
    }
    return transfers.size();
}

TEST_F(VirtualCamera, RequestsIssuedWhileTheCameraIsUnpluggedAllEnd) {
    vcam::PlugOptions options;
    options.instanceId = L"Storm";
    for (int round = 0; round < 100; ++round) {
        PlugAndOpen(options);
        vcam::Behaviour behaviour;
        behaviour.hold = round % 2 == 0;
        behaviour.ignoreCancel = round % 2 == 1;
        behaviour.delay = 1h;
        Set(behaviour);
        std::array<std::future<std::size_t>, 2> issuers;
        for (auto& issuer : issuers)
            issuer = std::async(std::launch::async, IssueUntilUnplugged, device.get());
        EXPECT_EQ(CodeThrownBy([&] { bus.WaitForPending(id, 20, kPatience); }), 0);
        bus.Unplug(id);
        std::size_t pended = 0;
        for (auto& issuer : issuers)
            ASSERT_NO_THROW(pended += issuer.get()) << "round " << round;
        EXPECT_GE(pended, 20u);
    }
}

TEST_F(VirtualCamera, OneInstanceIdPluggedFromTwoSides) {
    const auto plugAndUnplug = [] {
        vcam::Bus own;
        vcam::PlugOptions options;
        options.instanceId = L"Contended";
        int plugged = 0;
        while (plugged < 30) {
            try {
                own.Unplug(own.Plug(options));
                ++plugged;
            } catch (const std::system_error& error) {
                if (error.code().value() != ERROR_ALREADY_EXISTS)
                    throw;
            }
        }
    };
    auto other = std::async(std::launch::async, plugAndUnplug);
    EXPECT_NO_THROW(plugAndUnplug());
    EXPECT_NO_THROW(other.get());
    EXPECT_TRUE(bus.List().empty());
}

TEST_F(VirtualCamera, OpeningAndAskingWhileCamerasComeAndGo) {
    // The path stays the same, so that opens hit a camera in any state of its life.
    vcam::PlugOptions options;
    options.instanceId = L"Flutter";
    const std::wstring path = bus.InterfacePath(bus.Plug(options));
    bus.UnplugAll();
    std::atomic<bool> stop = false;
    std::atomic<int> answered = 0;
    std::thread user([&] {
        while (!stop) {
            const UniqueHandle opened = Open(path);
            if (!opened)
                continue;
            Transfer inquiry = ReadIn(Cdb({0x12, 0, 0, 0, 36}), 36);
            if (inquiry.Run(opened.get()) == 0 && inquiry.DataReturned() == 36)
                ++answered;
        }
    });
    for (int i = 0; i < 100; ++i)
        bus.Unplug(bus.Plug(options));
    const vcam::CameraId last = bus.Plug(options);
    bus.WaitFor(last, vcam::Counter::kRequests, 1, kPatience);
    stop = true;
    user.join();
    EXPECT_GT(answered, 0);
}

}  // namespace
}  // namespace camera_test
