#include "virtual_camera.h"

#include <setupapi.h>
#include <winioctl.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <system_error>
#include <utility>

#include "control_protocol.h"
#include "windows/unique_device_info_list.h"
#include "windows/unique_handle.h"

namespace vcam {
namespace {

static_assert(kRequestsKept == protocol::kRequestsKept);
static_assert(kRequestBytesKept == protocol::kRequestBytesKept);
static_assert(kBlockSize == protocol::kBlockBytes);
static_assert(kBlockLimit == protocol::kBlockLimit);

/// Time limit for the PnP manager to start or remove a camera.
constexpr DWORD kPnpMilliseconds = 30'000;

/// Most bytes of memory that one control request transfers.
constexpr std::size_t kMemoryChunk = 0x40000;

[[noreturn]] void Fail(DWORD code, const std::string& what) {
    throw std::system_error(static_cast<int>(code), std::system_category(), what);
}

[[noreturn]] void FailLast(const std::string& what) {
    Fail(::GetLastError(), what);
}

std::string CameraText(CameraId id) {
    return "camera " + std::to_string(id);
}

protocol::StringRecord Encode(const std::optional<std::string>& text, const char* name) {
    protocol::StringRecord record = {};
    record.length = protocol::kNone;
    if (text) {
        if (text->size() > protocol::kStringBytes)
            Fail(ERROR_INVALID_PARAMETER, std::string("the ") + name +
                                              " string must have at most " +
                                              std::to_string(protocol::kStringBytes) +
                                              " bytes, not " + std::to_string(text->size()));
        record.length = static_cast<ULONG>(text->size());
        std::memcpy(record.bytes, text->data(), text->size());
    }
    return record;
}

std::optional<std::string> Decode(const protocol::StringRecord& record) {
    if (record.length == protocol::kNone)
        return std::nullopt;
    return std::string(record.bytes, std::min<std::size_t>(record.length, protocol::kStringBytes));
}

bool RunsOnWine() {
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

void CheckInstanceId(const std::wstring& id) {
    if (id.size() > protocol::kInstanceIdCharacters)
        Fail(ERROR_INVALID_PARAMETER, "the instance id must have at most " +
                                          std::to_string(protocol::kInstanceIdCharacters) +
                                          " characters, not " + std::to_string(id.size()));
    const bool ascii = std::all_of(id.begin(), id.end(), [](wchar_t c) { return c < 0x80; });
    // Windows stops the machine when a bus driver reports such an id.
    if (!ascii && !RunsOnWine())
        Fail(ERROR_INVALID_PARAMETER, "the instance id must be ASCII on Windows");
}

bool EqualIgnoringCase(const std::wstring& a, const std::wstring& b) {
    return ::CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(),
                                  static_cast<int>(b.size()), TRUE) == CSTR_EQUAL;
}

/// The path of one enumerated interface.
std::wstring PathOf(HDEVINFO list, SP_DEVICE_INTERFACE_DATA* interfaceData) {
    DWORD size = 0;
    ::SetupDiGetDeviceInterfaceDetailW(list, interfaceData, nullptr, 0, &size, nullptr);
    if (size < sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W))
        FailLast("cannot read the path of a device interface");
    const auto memory = std::make_unique<std::byte[]>(size);
    auto* const detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(memory.get());
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (!::SetupDiGetDeviceInterfaceDetailW(list, interfaceData, detail, size, nullptr, nullptr))
        FailLast("cannot read the path of a device interface");
    return detail->DevicePath;
}

std::uint32_t LimitOf(const std::optional<std::uint32_t>& limit) {
    return limit.value_or(protocol::kNone);
}

}  // namespace

/// The open control link. Each call has an event of its own, so that calls can overlap.
struct Bus::Link {
    UniqueHandle device;

    /// Sends one control request and waits for its end. Returns the bytes written to `output`.
    /// `what` begins the text of the exception.
    DWORD Call(const std::string& what, ULONG code, const void* input, std::size_t inputLength,
               void* output, std::size_t outputLength, DWORD milliseconds = INFINITE) const {
        const UniqueHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (!event)
            FailLast("cannot create an event");
        OVERLAPPED overlapped = {};
        overlapped.hEvent = event.get();
        DWORD returned = 0;
        // The input is only read, the parameter is not const for historical reasons.
        if (!::DeviceIoControl(device.get(), code, const_cast<void*>(input),
                               static_cast<DWORD>(inputLength), output,
                               static_cast<DWORD>(outputLength), nullptr, &overlapped) &&
            ::GetLastError() != ERROR_IO_PENDING)
            FailLast(what);

        const bool timedOut = ::WaitForSingleObject(event.get(), milliseconds) == WAIT_TIMEOUT;
        if (timedOut)
            ::CancelIoEx(device.get(), &overlapped);
        // Also after a cancel: the buffers belong to the driver until the request has ended, and
        // it may have succeeded just before the cancel.
        if (!::GetOverlappedResult(device.get(), &overlapped, &returned, TRUE)) {
            const DWORD error = ::GetLastError();
            Fail(timedOut && error == ERROR_OPERATION_ABORTED ? ERROR_TIMEOUT : error, what);
        }
        return returned;
    }
};

Bus::Bus() : link(std::make_unique<Link>()) {
    link->device = OwnFile(::CreateFileW(protocol::kControlPath, GENERIC_READ | GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                         FILE_FLAG_OVERLAPPED, nullptr));
    if (!link->device)
        FailLast("cannot open the virtual camera bus, which vcamctl install installs");
}

Bus::~Bus() = default;
Bus::Bus(Bus&&) noexcept = default;
Bus& Bus::operator=(Bus&&) noexcept = default;

CameraId Bus::Plug(const PlugOptions& options) {
    CheckInstanceId(options.instanceId);
    protocol::PlugRecord record = {};
    record.interfaceClass = options.interfaceClass;
    record.hasSecondClass = options.secondClass ? 1 : 0;
    record.secondClass = options.secondClass.value_or(GUID{});
    record.blockCount = options.blockCount;
    record.transferLimit = options.transferLimit;
    record.vendor = Encode(options.vendor, "vendor");
    record.product = Encode(options.product, "product");
    record.revision = Encode(options.revision, "revision");
    record.instanceIdLength = static_cast<ULONG>(options.instanceId.size());
    std::copy(options.instanceId.begin(), options.instanceId.end(), record.instanceId);
    ULONG id = 0;
    const char* const what = "cannot plug a camera";
    link->Call(what, protocol::kPlug, &record, sizeof(record), &id, sizeof(id));
    try {
        link->Call(what, protocol::kWaitStarted, &id, sizeof(id), nullptr, 0, kPnpMilliseconds);
    } catch (const std::system_error&) {
        try {
            Unplug(id);
        } catch (const std::system_error&) {
            // The first failure is the one to report.
        }
        throw;
    }
    return id;
}

void Bus::Unplug(CameraId id) {
    const ULONG input = id;
    link->Call("cannot unplug " + CameraText(id), protocol::kUnplug, &input, sizeof(input), nullptr,
               0, kPnpMilliseconds);
}

void Bus::UnplugAll() {
    for (const CameraInfo& camera : List()) {
        try {
            Unplug(camera.id);
        } catch (const std::system_error& error) {
            if (error.code().value() != ERROR_DEVICE_NOT_CONNECTED)
                throw;
            // Another process has unplugged it meanwhile.
        }
    }
}

std::vector<CameraInfo> Bus::List() {
    std::array<ULONG, protocol::kCameraLimit> ids;
    const DWORD bytes =
        link->Call("cannot list the cameras", protocol::kList, nullptr, 0, ids.data(), sizeof(ids));
    std::vector<CameraInfo> cameras;
    for (std::size_t i = 0; i < bytes / sizeof(ULONG); ++i) {
        const ULONG id = ids[i];
        protocol::InfoRecord record;
        try {
            link->Call("cannot list " + CameraText(id), protocol::kInfo, &id, sizeof(id), &record,
                       sizeof(record));
        } catch (const std::system_error& error) {
            if (error.code().value() == ERROR_DEVICE_NOT_CONNECTED)
                continue;  // unplugged meanwhile
            throw;
        }
        CameraInfo& camera = cameras.emplace_back();
        camera.id = id;
        camera.options.vendor = Decode(record.plug.vendor);
        camera.options.product = Decode(record.plug.product);
        camera.options.revision = Decode(record.plug.revision);
        camera.options.interfaceClass = record.plug.interfaceClass;
        if (record.plug.hasSecondClass != 0)
            camera.options.secondClass = record.plug.secondClass;
        camera.options.instanceId = record.plug.instanceId;
        camera.options.blockCount = record.plug.blockCount;
        camera.options.transferLimit = record.plug.transferLimit;
    }
    return cameras;
}

std::wstring Bus::InterfacePath(CameraId id) {
    const ULONG input = id;
    protocol::InfoRecord record;
    const std::string what = "cannot find the path of " + CameraText(id);
    link->Call(what, protocol::kInfo, &input, sizeof(input), &record, sizeof(record));
    // The driver reports the kernel's name of the link; programs write "\\?\" for its "\??\".
    std::wstring name = record.interfaceName;
    if (name.size() < 4)
        Fail(ERROR_NOT_READY, what);
    name.replace(0, 4, L"\\\\?\\");

    // The enumeration may use different letter case.
    const GUID& guid = record.plug.interfaceClass;
    const HDEVINFO list =
        ::SetupDiGetClassDevsW(&guid, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE);
    if (list == INVALID_HANDLE_VALUE)
        FailLast(what);
    const UniqueDeviceInfoList owner(list);
    SP_DEVICE_INTERFACE_DATA data = {};
    data.cbSize = sizeof(data);
    for (DWORD index = 0; ::SetupDiEnumDeviceInterfaces(list, nullptr, &guid, index, &data);
         ++index) {
        std::wstring path = PathOf(list, &data);
        if (EqualIgnoringCase(path, name))
            return path;
    }
    Fail(ERROR_NOT_FOUND, what);
}

void Bus::SetBehaviour(CameraId id, const Behaviour& behaviour) {
    const std::string what = "cannot set the behaviour of " + CameraText(id);
    const auto milliseconds = behaviour.delay.count();
    if (milliseconds < 0 || milliseconds >= protocol::kNone)
        Fail(ERROR_INVALID_PARAMETER, what + ": the delay must be from 0 to " +
                                          std::to_string(protocol::kNone - 1) + " ms, not " +
                                          std::to_string(milliseconds));
    if (behaviour.block < std::chrono::milliseconds(0) || behaviour.block > std::chrono::hours(1))
        Fail(ERROR_INVALID_PARAMETER, what + ": the block must be from 0 to 3600000 ms, not " +
                                          std::to_string(behaviour.block.count()));
    protocol::BehaviourRecord record = {};
    record.id = id;
    record.blockMilliseconds = static_cast<ULONG>(behaviour.block.count());
    record.completionStatus = behaviour.completionStatus;
    record.immediateStatus = behaviour.immediateStatus;
    record.delayMilliseconds = static_cast<ULONG>(milliseconds);
    record.scsiStatus = behaviour.scsiStatus;
    record.hold = behaviour.hold;
    record.ignoreCancel = behaviour.ignoreCancel;
    record.maximumDataBytes = LimitOf(behaviour.maximumDataBytes);
    record.returnedBytes = LimitOf(behaviour.returnedBytes);
    record.descriptorHeaderBytes = LimitOf(behaviour.descriptorHeaderBytes);
    record.descriptorBytes = LimitOf(behaviour.descriptorBytes);
    if (behaviour.descriptor) {
        if (behaviour.descriptor->size() > protocol::kDescriptorBytes)
            Fail(ERROR_INVALID_PARAMETER, what + ": the descriptor must have at most " +
                                              std::to_string(protocol::kDescriptorBytes) +
                                              " bytes, not " +
                                              std::to_string(behaviour.descriptor->size()));
        record.hasDescriptor = 1;
        record.descriptorLength = static_cast<ULONG>(behaviour.descriptor->size());
        std::memcpy(record.descriptor, behaviour.descriptor->data(), behaviour.descriptor->size());
    }
    link->Call(what, protocol::kSetBehaviour, &record, sizeof(record), nullptr, 0);
}

void Bus::Release(CameraId id, std::uint64_t sequenceNumber) {
    const std::string what =
        "cannot release request " + std::to_string(sequenceNumber) + " of " + CameraText(id);
    if (sequenceNumber == 0)
        Fail(ERROR_NOT_FOUND, what);
    const protocol::ReleaseRecord record = {sequenceNumber, id, 0};
    link->Call(what, protocol::kRelease, &record, sizeof(record), nullptr, 0);
}

void Bus::ReleaseAll(CameraId id) {
    const protocol::ReleaseRecord record = {0, id, 0};
    link->Call("cannot release the requests of " + CameraText(id), protocol::kRelease, &record,
               sizeof(record), nullptr, 0);
}

std::vector<Request> Bus::LastRequests(CameraId id, std::uint32_t count) {
    const std::uint64_t last = Counters(id).requests;
    const std::uint64_t first =
        last - std::min<std::uint64_t>({last, count, protocol::kRequestsKept}) + 1;
    std::vector<std::byte> buffer(sizeof(protocol::RequestHeader) + protocol::kRequestBytesKept);
    std::vector<Request> requests;
    for (std::uint64_t sequenceNumber = first; sequenceNumber <= last; ++sequenceNumber) {
        const protocol::RequestQuery query = {sequenceNumber, id, 0};
        try {
            link->Call("cannot read the requests of " + CameraText(id), protocol::kGetRequest,
                       &query, sizeof(query), buffer.data(), buffer.size());
        } catch (const std::system_error& error) {
            if (error.code().value() == ERROR_NOT_FOUND)
                continue;  // newer requests have pushed it out meanwhile
            throw;
        }
        protocol::RequestHeader header;
        std::memcpy(&header, buffer.data(), sizeof(header));
        const auto begin = buffer.begin() + sizeof(header);
        requests.push_back({sequenceNumber, header.inputLength, header.outputLength,
                            std::vector<std::byte>(begin, begin + header.keptBytes)});
    }
    return requests;
}

CameraCounters Bus::Counters(CameraId id) {
    const ULONG input = id;
    protocol::CountersRecord record = {};
    link->Call("cannot read the counters of " + CameraText(id), protocol::kCounters, &input,
               sizeof(input), &record, sizeof(record));
    return {record.requests, record.opens, record.closes,
            static_cast<std::uint32_t>(record.pending)};
}

void Bus::WaitFor(CameraId id, Counter counter, std::uint64_t count,
                  std::chrono::milliseconds timeout) {
    static constexpr std::array<const char*, 4> kNames = {"requests", "opens", "closes",
                                                          "pending requests"};
    const protocol::WaitRecord record = {count, id, static_cast<protocol::CounterKind>(counter)};
    // 49 days at most, because INFINITE would have no limit.
    const auto milliseconds =
        std::clamp<std::chrono::milliseconds::rep>(timeout.count(), 0, INFINITE - 1);
    link->Call("cannot wait for " + std::to_string(count) + " " +
                   kNames.at(static_cast<std::size_t>(counter)) + " of " + CameraText(id),
               protocol::kWait, &record, sizeof(record), nullptr, 0,
               static_cast<DWORD>(milliseconds));
}

std::vector<std::byte> Bus::ReadMemory(CameraId id, std::uint64_t offset, std::size_t length) {
    std::vector<std::byte> bytes(length);
    std::size_t done = 0;
    do {  // also once for 0 bytes, to check the offset and the camera
        const std::size_t part = std::min(length - done, kMemoryChunk);
        const protocol::MemoryRecord record = {offset + done, id, static_cast<ULONG>(part)};
        link->Call("cannot read the memory of " + CameraText(id), protocol::kReadMemory, &record,
                   sizeof(record), bytes.data() + done, part);
        done += part;
    } while (done < length);
    return bytes;
}

void Bus::WriteMemory(CameraId id, std::uint64_t offset, std::span<const std::byte> bytes) {
    std::vector<std::byte> message;
    std::size_t done = 0;
    do {
        const std::size_t part = std::min(bytes.size() - done, kMemoryChunk);
        const protocol::MemoryRecord record = {offset + done, id, static_cast<ULONG>(part)};
        message.resize(sizeof(record) + part);
        std::memcpy(message.data(), &record, sizeof(record));
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(done), part,
                    message.begin() + sizeof(record));
        link->Call("cannot write the memory of " + CameraText(id), protocol::kWriteMemory,
                   message.data(), message.size(), nullptr, 0);
        done += part;
    } while (done < bytes.size());
}

}  // namespace vcam
