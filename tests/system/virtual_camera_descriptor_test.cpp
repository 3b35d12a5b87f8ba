// The storage device descriptor of a virtual camera.

#include <cstring>
#include <string>
#include <vector>

#include "virtual_camera_fixture.h"

namespace camera_test {
namespace {

/// Queries the storage device descriptor into `length` bytes; the size says what came.
std::vector<std::uint8_t> QueryDescriptor(HANDLE device, std::size_t length) {
    STORAGE_PROPERTY_QUERY query = {};
    query.PropertyId = StorageDeviceProperty;
    query.QueryType = PropertyStandardQuery;
    std::vector<std::uint8_t> bytes(length);
    DWORD returned = 0;
    const UniqueHandle event(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    OVERLAPPED overlapped = {};
    overlapped.hEvent = event.get();
    EXPECT_TRUE(::DeviceIoControl(device, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query),
                                  bytes.data(), static_cast<DWORD>(length), nullptr, &overlapped) ||
                ::GetLastError() == ERROR_IO_PENDING)
        << ::GetLastError();
    EXPECT_TRUE(::GetOverlappedResult(device, &overlapped, &returned, TRUE)) << ::GetLastError();
    bytes.resize(returned);
    return bytes;
}

TEST_F(VirtualCamera, DescriptorHasTheStringsByteForByte) {
    vcam::PlugOptions options;
    options.vendor = "Orvik   ";
    options.product = std::nullopt;
    options.revision = "\x01\xff odd";
    PlugAndOpen(options);

    const std::vector<std::uint8_t> head = QueryDescriptor(device.get(), 8);
    ASSERT_EQ(head.size(), 8u);
    STORAGE_DESCRIPTOR_HEADER header;
    std::memcpy(&header, head.data(), sizeof(header));

    const std::vector<std::uint8_t> bytes = QueryDescriptor(device.get(), header.Size);
    ASSERT_EQ(bytes.size(), header.Size);
    STORAGE_DEVICE_DESCRIPTOR descriptor;
    ASSERT_GE(bytes.size(), sizeof(descriptor));
    std::memcpy(&descriptor, bytes.data(), sizeof(descriptor));
    const auto text = [&](DWORD offset) {
        return std::string(reinterpret_cast<const char*>(bytes.data()) + offset);
    };
    EXPECT_EQ(text(descriptor.VendorIdOffset), *options.vendor);
    EXPECT_EQ(descriptor.ProductIdOffset, 0u);
    EXPECT_EQ(text(descriptor.ProductRevisionOffset), *options.revision);
    EXPECT_EQ(QueryDescriptor(device.get(), header.Size + 100).size(), header.Size);
}

TEST_F(VirtualCamera, DescriptorAnswersCanBeTooShort) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.descriptorHeaderBytes = 7;
    Set(behaviour);
    EXPECT_EQ(QueryDescriptor(device.get(), 8).size(), 7u);
    EXPECT_GT(QueryDescriptor(device.get(), 500).size(), 40u);

    behaviour = {};
    behaviour.descriptorBytes = 20;
    Set(behaviour);
    EXPECT_EQ(QueryDescriptor(device.get(), 8).size(), 8u);
    EXPECT_EQ(QueryDescriptor(device.get(), 500).size(), 20u);
}

TEST_F(VirtualCamera, DescriptorCanBeAnyBytes) {
    PlugAndOpen();
    vcam::Behaviour behaviour;
    behaviour.descriptor.emplace();
    for (int i = 0; i < 1000; ++i)
        behaviour.descriptor->push_back(static_cast<std::byte>(i * 7));
    Set(behaviour);
    const std::vector<std::uint8_t> bytes = QueryDescriptor(device.get(), 2000);
    ASSERT_EQ(bytes.size(), 1000u);
    EXPECT_EQ(std::memcmp(bytes.data(), behaviour.descriptor->data(), 1000), 0);
    behaviour.descriptor->resize(4097);
    EXPECT_EQ(CodeThrownBy([&] { Set(behaviour); }), ERROR_INVALID_PARAMETER);
}

}  // namespace
}  // namespace camera_test
