#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <vector>

#include <windows.h>
#include <boost/smart_ptr/shared_ptr.hpp>

// After <windows.h>, whose types it uses.
#include <dbt.h>

#include "device/io_operation.h"
#include "windows/unique_handle.h"

class Device;
class ServerClient;

/// The hub of the service: the listening instance of the camera pipe, the connected clients and
/// the cameras present.
///
/// Thread: the dispatcher thread makes, uses and destroys it. PostQuit(), PostDeviceEvent() and
/// LaunchIfNoMainCommunicator() are for other threads, as they say.
///
/// A client that connects while no main communicator is connected becomes the main communicator,
/// which is notified when cameras arrive and leave. All other clients are camera pipes.
class Server {
public:
    /// Records the cameras among the disk and CD-ROM devices present, starts the desktop
    /// application for each, and opens the first pipe instance. `port` is not owned and outlives
    /// the server and every packet for it that is still on the port.
    /// Throws WindowsException and std::bad_alloc.
    explicit Server(HANDLE port);

    /// Releases the clients, the listening instance and the cameras. Their issued operations stay
    /// behind and free themselves when their packets are taken off the port.
    ~Server();

    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    /// Ends the dispatcher loop after the packets that are queued already. For the control
    /// handler's thread: touches only the port and a new operation. Throws WindowsException.
    void PostQuit();

    /// Hands a copy of a broadcast record (`dbch_size` bytes, see <dbt.h>) and its WM_DEVICECHANGE
    /// event code to the dispatcher thread.
    /// For the thread of the notification window: touches only the port, the new operation, and the
    /// link of LastSelf(), which is set before `theServer` and counts its owners atomically. May
    /// also be called after the server has been destroyed, as long as its memory exists; no thread
    /// takes the packet then. Throws WindowsException and std::bad_alloc.
    void PostDeviceEvent(WPARAM eventCode, const DEV_BROADCAST_HDR* record);

    /// Starts the desktop application unless a main communicator is connected. For the thread of
    /// the notification window, deliberately without a lock: it reads the pointer to the main
    /// communicator while the dispatcher thread may change it. Never throws.
    void LaunchIfNoMainCommunicator() noexcept;

    /// Empty if none is connected. Dispatcher thread.
    boost::shared_ptr<ServerClient> GetMainCommunicator() const;

    /// Empty if no camera with this identifier is present.
    boost::shared_ptr<Device> FindDevice(std::uint32_t id) const;

    /// Drops the registry's reference, which destroys the client at once.
    void RemoveClient(ServerClient* client);

    /// Gives up a camera for which no transfer could be started and notifies the main communicator.
    /// Does nothing for an empty pointer. Destroys the main communicator's session if its client
    /// has hung up.
    void RemoveDevice(const boost::shared_ptr<Device>& device);

private:
    // listening_pipe.cpp
    /// Opens the next pipe instance and starts to wait for its client. A failure writes one line to
    /// standard error, and no further client can connect.
    void ListenOnPipe() noexcept;
    void StartListening();
    void OnClientConnected(IoOperation* operation);

    // device_events.cpp
    void EnumerateInterfaces(const GUID& classGuid);
    void DeviceEvent(IoOperation* operation);
    void DeviceArrival(const wchar_t* path);
    void DeviceDetach(const DEV_BROADCAST_DEVICEINTERFACE_W& record);
    void TellDetached(const Device& device);

    // application_launcher.cpp
    /// Starts the desktop application in the session of the user at the console, with that user's
    /// token, environment and desktop. Touches nothing of the server. Makes no C++ allocation, so
    /// that lack of memory cannot end the process here.
    void LaunchApplication() noexcept;

    /// A share of the newest server's `self` that remains after the server's end.
    static boost::shared_ptr<OwnerLink<Server>>& LastSelf();

    boost::shared_ptr<OwnerLink<Server>> self;  // shared with the callback of every operation

    HANDLE completionPort;                                       // not owned
    UniqueHandle listeningPipe;                                  // bound to the port; empty if none
    std::uint32_t nextDeviceId = 1;                              // never used again by this server
    KeptOperation acceptOperation;                               // used by each ConnectNamedPipe
    std::vector<boost::shared_ptr<ServerClient>> cameraClients;  // in the order of connection
    std::map<std::int32_t, boost::shared_ptr<Device>> devices;   // by identifier, signed
    boost::shared_ptr<ServerClient> mainCommunicator;            // empty if none
};

/// The one server of the process. Null until it is constructed, and never reset. The control
/// handler and the notification window use it from their threads.
extern std::atomic<Server*> theServer;
