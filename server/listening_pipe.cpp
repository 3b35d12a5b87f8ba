// The listening instance of the camera pipe, and the acceptance of a client that connects to it.

#include <cstdint>
#include <iostream>
#include <iterator>
#include <memory>
#include <utility>

#include <windows.h>
#include <boost/smart_ptr/make_shared.hpp>

#include <aclapi.h>

#include "device/device.h"
#include "device/io_operation.h"
#include "device/windows_exception.h"
#include "protocol/message.h"
#include "server/server.h"
#include "session/server_client.h"
#include "windows/unique_memory.h"
#include "windows/unique_sid.h"

namespace {

constexpr DWORD kPipeBufferSize = 0x10000;

/// The SID with one sub-authority.
UniqueSid MakeSid(SID_IDENTIFIER_AUTHORITY authority, DWORD subAuthority) {
    PSID sid = nullptr;
    if (!::AllocateAndInitializeSid(&authority, 1, subAuthority, 0, 0, 0, 0, 0, 0, 0, &sid))
        throw WindowsException("AllocateAndInitializeSid failed.");
    return UniqueSid(sid);
}

EXPLICIT_ACCESS_W FullAccessFor(const UniqueSid& group) noexcept {
    EXPLICIT_ACCESS_W entry{};
    entry.grfAccessPermissions = FILE_ALL_ACCESS;
    entry.grfAccessMode = SET_ACCESS;
    entry.grfInheritance = NO_INHERITANCE;
    entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    entry.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
    entry.Trustee.ptstrName = static_cast<LPWSTR>(group.get());
    return entry;
}

/// Who may open the camera pipe.
class PipeSecurity {
public:
    PipeSecurity() {
        EXPLICIT_ACCESS_W entries[] = {
            FullAccessFor(localLogon),   // desktop programs of users logged on locally
            FullAccessFor(localSystem),  // the service itself, for its further instances
        };
        PACL list = nullptr;
        const DWORD error =
            ::SetEntriesInAclW(static_cast<ULONG>(std::size(entries)), entries, nullptr, &list);
        if (error != ERROR_SUCCESS) {
            ::SetLastError(error);  // it returns its error, the exception reads it from there
            throw WindowsException("SetEntriesInAcl failed.");
        }
        accessList.reset(list);
        if (!::InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION))
            throw WindowsException("InitializeSecurityDescriptor failed.");
        if (!::SetSecurityDescriptorDacl(&descriptor, TRUE, list, FALSE))
            throw WindowsException("SetSecurityDescriptorDacl failed.");
    }

    SECURITY_ATTRIBUTES* Attributes() noexcept { return &attributes; }

private:
    UniqueSid localLogon = MakeSid(SECURITY_LOCAL_SID_AUTHORITY, SECURITY_LOCAL_RID);
    UniqueSid localSystem = MakeSid(SECURITY_NT_AUTHORITY, SECURITY_LOCAL_SYSTEM_RID);
    std::unique_ptr<ACL, LocalFreer> accessList;
    SECURITY_DESCRIPTOR descriptor{};
    SECURITY_ATTRIBUTES attributes{sizeof(attributes), &descriptor, FALSE};
};

}  // namespace

void Server::ListenOnPipe() noexcept {
    try {
        StartListening();
    } catch (...) {
        std::cerr << "Error caught in ListenOnPipe().\n";
    }
}

void Server::StartListening() {
    PipeSecurity security;
    listeningPipe = OwnFile(::CreateNamedPipeW(
        kCameraPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
        PIPE_UNLIMITED_INSTANCES, kPipeBufferSize, kPipeBufferSize, 0, security.Attributes()));
    if (!listeningPipe)
        throw WindowsException("Failed to create named pipe.");

    const ULONG_PTR key = LowHalf(listeningPipe.get());
    if (::CreateIoCompletionPort(listeningPipe.get(), completionPort, key, 0) != completionPort)
        throw WindowsException("Failed to connect pipe to IOCompletionPort.");

    if (!::ConnectNamedPipe(listeningPipe.get(), &acceptOperation.Get()->overlapped)) {
        const DWORD error = ::GetLastError();
        // A client has connected before ConnectNamedPipe, which then queues no packet. The packet
        // is posted here, so that this client is accepted like any other.
        const bool connected = error == ERROR_PIPE_CONNECTED &&
                               ::PostQueuedCompletionStatus(completionPort, 0, key,
                                                            &acceptOperation.Get()->overlapped);
        if (error != ERROR_IO_PENDING && !connected)
            throw WindowsException("ConnectNamedPipe failed.");
    }
    acceptOperation.SetIssued();
}

void Server::OnClientConnected(IoOperation* operation) {
    if (operation->status == IoOperation::kError)
        throw WindowsException();

    const std::uint32_t pipeValue = LowHalf(listeningPipe.get());
    auto client = boost::make_shared<ServerClient>(this, std::move(listeningPipe));
    ServerClient* const session = client.get();
    if (!mainCommunicator) {
        std::cout << "attached main communicator pipe to desktop client: 0x" << pipeValue
                  << std::endl;
        mainCommunicator = std::move(client);
    } else {
        std::cout << "attached camera pipe to desktop client: 0x" << pipeValue << std::endl;
        cameraClients.push_back(std::move(client));
    }
    std::cout << "ServerClient connected." << std::endl;

    operation->Reset();
    ListenOnPipe();

    for (const auto& [id, device] : devices) {
        if (session->SendCameraAttached(*device) == SessionState::kGone)
            return;  // the client has hung up and its session is gone
    }
}
