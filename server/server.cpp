#include "server/server.h"

#include <algorithm>
#include <iostream>
#include <memory>
#include <utility>

#include <boost/smart_ptr/make_shared.hpp>

#include "device/device.h"
#include "device/io_operation.h"
#include "device/windows_exception.h"
#include "session/server_client.h"

// Last: <initguid.h> makes <winioctl.h> define its GUIDs here and not only declare them, and it may
// define them only once.
#include <initguid.h>
// clang-format off: must follow
#include <winioctl.h>
// clang-format on

std::atomic<Server*> theServer{nullptr};

Server::Server(HANDLE port)
    : self(boost::make_shared<OwnerLink<Server>>()),
      completionPort(port),
      acceptOperation(CallOwner<&Server::OnClientConnected>(self)) {
    self->owner = this;
    EnumerateInterfaces(GUID_DEVINTERFACE_DISK);
    EnumerateInterfaces(GUID_DEVINTERFACE_CDROM);
    ListenOnPipe();
    LastSelf() = self;
}

Server::~Server() {
    self->owner = nullptr;
    cameraClients.clear();
    mainCommunicator.reset();
    if (listeningPipe) {
        ::DisconnectNamedPipe(listeningPipe.get());
        listeningPipe.reset();
    }
    devices.clear();
}

boost::shared_ptr<OwnerLink<Server>>& Server::LastSelf() {
    // Never destroyed: the window thread may use it up to the very end of the process.
    static auto& last = *new boost::shared_ptr<OwnerLink<Server>>;
    return last;
}

void Server::PostQuit() {
    auto operation = std::make_unique<IoOperation>(IoCallback());
    operation->status = IoOperation::kQuit;
    if (!::PostQueuedCompletionStatus(completionPort, 0, 0, &operation->overlapped))
        throw WindowsException("PostQueuedCompletionStatus failed.");
    static_cast<void>(operation.release());  // posted: the dispatcher frees it
}

boost::shared_ptr<ServerClient> Server::GetMainCommunicator() const {
    return mainCommunicator;
}

boost::shared_ptr<Device> Server::FindDevice(std::uint32_t id) const {
    const auto found = devices.find(static_cast<std::int32_t>(id));
    return found != devices.end() ? found->second : boost::shared_ptr<Device>();
}

void Server::RemoveClient(ServerClient* client) {
    if (mainCommunicator && mainCommunicator.get() == client) {
        std::cout << "Removing main communicator." << std::endl;
        mainCommunicator.reset();
        return;
    }
    // Kept on purpose: the line is also written when a camera pipe disconnects.
    if (!mainCommunicator)
        std::cerr << "No main communicator when RemoveClient() called.\n";
    const auto found = std::find_if(cameraClients.begin(), cameraClients.end(),
                                    [client](const auto& entry) { return entry.get() == client; });
    if (found == cameraClients.end()) {
        std::cerr << "RemoveClient() on non-existing client.\n";
        return;
    }
    const boost::shared_ptr<ServerClient> removed = std::move(*found);  // until the list is whole
    cameraClients.erase(found);
}
