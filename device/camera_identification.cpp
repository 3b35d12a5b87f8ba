#include "device/camera_identification.h"

#include <cstddef>
#include <cstring>
#include <memory>
#include <string_view>

#include <windows.h>
#include <winioctl.h>

#include "windows/unique_handle.h"
#include "windows/unique_memory.h"

namespace {

/// Asks for the device descriptor; true if exactly `size` bytes of it came.
bool QueryDescriptor(HANDLE device, void* descriptor, DWORD size) noexcept {
    STORAGE_PROPERTY_QUERY query{};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    DWORD returned = 0;
    return ::DeviceIoControl(device, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query),
                             descriptor, size, &returned, nullptr) &&
           returned == size;
}

/// The descriptor as the driver gave it: `size` bytes, and one more that ends a string for which
/// the driver has forgotten its NUL. The offsets in it are the driver's and are not trusted.
class Descriptor {
public:
    explicit Descriptor(DWORD descriptorSize) noexcept
        : size(descriptorSize),
          block(static_cast<char*>(::GlobalAlloc(GMEM_FIXED, std::size_t{descriptorSize} + 1))) {
        if (block)
            block.get()[size] = '\0';
    }

    bool Read(HANDLE device) noexcept {
        return block != nullptr && QueryDescriptor(device, block.get(), size);
    }

    /// The string whose offset stands at `field` of STORAGE_DEVICE_DESCRIPTOR, trimmed; empty if
    /// the driver gives none.
    std::string_view String(std::size_t field) noexcept {
        DWORD offset = 0;
        if (field + sizeof(offset) <= size)
            std::memcpy(&offset, block.get() + field, sizeof(offset));
        if (offset == 0 || offset >= size)
            return {};
        return TrimSpaces(block.get() + offset);
    }

private:
    DWORD size;
    std::unique_ptr<char, GlobalFreer> block;
};

}  // namespace

static_assert(sizeof(STORAGE_PROPERTY_QUERY) == 12);
static_assert(sizeof(STORAGE_DESCRIPTOR_HEADER) == 8);

bool IdentifyCamera(const wchar_t* path, bool acceptChipIdentity) noexcept {
    // No access rights: enough for the query, and it does not disturb programs that read or write.
    const UniqueHandle device =
        OwnFile(::CreateFileW(path, 0, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!device)
        return false;

    STORAGE_DESCRIPTOR_HEADER header{};
    if (!QueryDescriptor(device.get(), &header, sizeof(header)))
        return false;

    Descriptor descriptor(header.Size);
    if (!descriptor.Read(device.get()))
        return false;

    const auto vendor = descriptor.String(offsetof(STORAGE_DEVICE_DESCRIPTOR, VendorIdOffset));
    const auto product = descriptor.String(offsetof(STORAGE_DEVICE_DESCRIPTOR, ProductIdOffset));
    const auto revision =
        descriptor.String(offsetof(STORAGE_DEVICE_DESCRIPTOR, ProductRevisionOffset));
    if (acceptChipIdentity && vendor == "ZORAN" && product == "COACH6 (I62)")
        return true;
    return vendor == "Orvik" && revision == "F01";
}

char* TrimSpaces(char* text) noexcept {
    while (*text == ' ')
        ++text;
    for (char* end = text + std::strlen(text); end != text && end[-1] == ' '; --end)
        end[-1] = '\0';
    return text;
}
