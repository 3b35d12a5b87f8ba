#include "in_process_service.h"

#include <cstring>
#include <iostream>
#include <stdexcept>
#include <utility>

#include <dbt.h>

#include "device/transfer_request.h"
#include "device/windows_exception.h"

namespace {

/// Request identifiers of RoundTrip(), far from those of the tests.
constexpr std::uint32_t kRoundTripId = 0x52540000;

DWORD WINAPI WriteLine(void* /*argument*/) {
    std::cerr << "a line of another thread" << std::endl;
    return 0;
}

}  // namespace

InProcessService::InProcessService() {
    bus.UnplugAll();  // what an earlier program has left behind
}

InProcessService::~InProcessService() = default;

/// What the libraries allocate once and keep is there after this.
void InProcessService::WarmUp() {
    static bool warm = false;
    if (std::exchange(warm, true))
        return;
    SCOPED_TRACE("warming up");
    const vcam::CameraId camera = Plug();
    StartServer();
    auto client = ConnectAndAsk();
    client->Write(MessageBytes(kTransferIn, 1, kFirstCamera, Read6(0, 1)));
    WaitForMessage(*client, 3);
    Leave(client);
    StopServer();
    bus.ReleaseAll(camera);
    bus.LastRequests(camera);
    bus.Unplug(camera);
    plugged.clear();
    try {
        std::cerr << "a line" << std::endl;
        throw WindowsException("an exception");
    } catch (const std::exception&) {
    }
    // The library's record of a thread, which the next one takes over.
    const UniqueHandle thread(::CreateThread(nullptr, 0, WriteLine, nullptr, 0, nullptr));
    ::WaitForSingleObject(thread.get(), INFINITE);
}

void InProcessService::SetUp() {
    WarmUp();
    output.Clear();
    plugged.reserve(64);
    heapBefore.Take();
}

void InProcessService::TearDown() {
    for (const vcam::CameraId id : plugged)
        bus.ReleaseAll(id);
    StopServer();
    for (const vcam::CameraId id : plugged) {
        const vcam::CameraCounters counters = bus.Counters(id);
        if (!leftOpen) {
            EXPECT_EQ(counters.opens, counters.closes) << "camera handles were left open";
        }
        EXPECT_EQ(counters.pending, 0u);
        bus.Unplug(id);
    }
    if (HasFailure()) {
        std::fprintf(stderr, "--- standard output\n%s--- standard error\n%s---\n",
                     output.Out().c_str(), output.Error().c_str());
        return;
    }
    output.Clear();
    EXPECT_EQ(heapBefore.Difference(), "") << "blocks of memory were left behind";
}

void InProcessService::StartServer() {
    server = std::make_unique<Server>(port.Get());
}

void InProcessService::StopServer() {
    server.reset();
    port.Drain();
}

std::unique_ptr<PipeClient> InProcessService::Connect(PipeClient::Reading reading) {
    const std::size_t before = output.CountOut("ServerClient connected.");
    auto client = std::make_unique<PipeClient>(port, reading);
    port.DispatchUntil("the client's connection",
                       [&] { return output.CountOut("ServerClient connected.") > before; });
    return client;
}

std::unique_ptr<PipeClient> InProcessService::ConnectAndAsk() {
    auto client = Connect();
    RoundTrip(*client);
    return client;
}

void InProcessService::RoundTrip(PipeClient& client) {
    const std::uint32_t id = kRoundTripId + ++roundTrips;
    client.Write(MessageBytes(kTransferIn, id, 0, {}));
    std::optional<Message> answer;
    port.DispatchUntil("the answer to a request without a command", [&] {
        for (Message& message : client.Messages()) {
            if (message.header.requestId == id)
                answer = std::move(message);
        }
        return answer.has_value() || client.HasEnded();
    });
    ASSERT_TRUE(answer.has_value()) << "the service has closed the pipe";
    EXPECT_EQ(answer->header.messageType, kTransferFailed);
}

void InProcessService::WriteAndDispatch(PipeClient& client, std::span<const std::byte> bytes) {
    client.Write(bytes);
    port.DispatchUntil("a client's write", [&] { return client.PendingWrites() == 0; });
    port.DispatchQueued();
}

Message InProcessService::WaitForMessage(PipeClient& client, std::size_t count) {
    port.DispatchUntil("message " + std::to_string(count) + " of a client",
                       [&] { return client.Messages().size() >= count || client.HasEnded(); });
    if (client.Messages().size() < count)
        throw std::runtime_error("the service has closed the pipe");
    return client.Messages()[count - 1];
}

void InProcessService::Leave(std::unique_ptr<PipeClient>& client) {
    const std::size_t before = Shutdowns();
    client.reset();
    WaitForShutdowns(before + 1);
}

void InProcessService::WaitForShutdowns(std::size_t count) {
    port.DispatchUntil("the end of the session", [&] { return Shutdowns() >= count; });
}

vcam::CameraId InProcessService::Plug(const vcam::PlugOptions& options) {
    // The same names in every test: Windows keeps a record of each device that was ever there, and
    // all of them are looked at whenever devices are enumerated.
    vcam::PlugOptions named = options;
    if (named.instanceId.empty())
        named.instanceId = L"unit" + std::to_wstring(plugged.size());
    plugged.push_back(bus.Plug(named));
    return plugged.back();
}

void InProcessService::PostInterfaceEvent(WPARAM eventCode, const std::wstring& path,
                                          const GUID& interfaceClass) {
    const std::size_t size =
        sizeof(DEV_BROADCAST_DEVICEINTERFACE_W) + path.size() * sizeof(wchar_t);
    const auto block = std::make_unique<std::byte[]>(size);
    auto* const record = new (block.get()) DEV_BROADCAST_DEVICEINTERFACE_W{};
    record->dbcc_size = static_cast<DWORD>(size);
    record->dbcc_devicetype = DBT_DEVTYP_DEVICEINTERFACE;
    record->dbcc_classguid = interfaceClass;
    std::memcpy(record->dbcc_name, path.c_str(), (path.size() + 1) * sizeof(wchar_t));
    server->PostDeviceEvent(eventCode, reinterpret_cast<const DEV_BROADCAST_HDR*>(record));
}

void InProcessService::InterfaceEvent(WPARAM eventCode, const std::wstring& path,
                                      const GUID& interfaceClass) {
    PostInterfaceEvent(eventCode, path, interfaceClass);
    port.DispatchQueued();
}

void InProcessService::ExpectServing() {
    auto client = ConnectAndAsk();
    Leave(client);
}
