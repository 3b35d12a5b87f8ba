// SCSI commands, and checks of the data that a camera returns.

#include <cstddef>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>
#include <windows.h>

#include "client_of_fake_service.h"
#include "orvik/client.h"
#include "support/client_results.h"

namespace {

using client_test::KindOf;
using client_test::MakeBytes;
using orvik::ErrorKind;

TEST(Scsi, Commands) {
    const auto bytes = [](const auto& cdb) { return Bytes(cdb.begin(), cdb.end()); };
    EXPECT_EQ(bytes(orvik::InquiryCdb()), MakeBytes({0x12, 0, 0, 0, 36, 0}));
    EXPECT_EQ(bytes(orvik::TestUnitReadyCdb()), MakeBytes({0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes(orvik::ReadCapacityCdb()), MakeBytes({0x25, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(bytes(orvik::Read6Cdb(0x1F2345, 128)), MakeBytes({8, 0x1F, 0x23, 0x45, 128, 0}));
    EXPECT_EQ(bytes(orvik::Read6Cdb(0x1FFFFF, 1)), MakeBytes({8, 0x1F, 0xFF, 0xFF, 1, 0}));
    EXPECT_EQ(bytes(orvik::Write6Cdb(0x1F2345, 255)), MakeBytes({10, 0x1F, 0x23, 0x45, 255, 0}));
    EXPECT_EQ(bytes(orvik::RequestSenseCdb()), MakeBytes({3, 0, 0, 0, 252, 0}));
}

TEST(Scsi, BlocksOutOfRangeAreRefused) {
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0, 0); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0, 256); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0x200000, 1); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0x1FFFFF, 2); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Read6Cdb(0xFFFFFFFF, 2); }), ErrorKind::kBadArgument);
    EXPECT_EQ(KindOf([] { orvik::Write6Cdb(0x1FFFFF, 2); }), ErrorKind::kBadArgument);
}

Bytes InquiryData(const std::string& texts) {
    Bytes data = MakeBytes({0x60, 0x80, 4, 2, 31, 0, 0, 0});
    for (const char c : texts)
        data.push_back(static_cast<std::byte>(c));
    return data;
}

TEST(Scsi, InquiryData) {
    const auto inquiry = orvik::DecodeInquiry(InquiryData("Orvik   A camera        F01 "));
    EXPECT_EQ(inquiry.deviceType, 0);
    EXPECT_TRUE(inquiry.removable);
    EXPECT_EQ(inquiry.vendor, "Orvik");
    EXPECT_EQ(inquiry.product, "A camera");
    EXPECT_EQ(inquiry.revision, "F01");
}

TEST(Scsi, InquiryDataWithInvalidBytes) {
    using namespace std::string_literals;
    const auto odd =
        orvik::DecodeInquiry(InquiryData("\x1B[31m\xFF\0x        \0\0\0\0\0\0\0\0 \x7F\n "s));
    EXPECT_EQ(odd.vendor, "?[31m??x");
    EXPECT_EQ(odd.product, "");
    EXPECT_EQ(odd.revision, " ??");
    for (std::size_t size = 0; size < 36; ++size)
        EXPECT_EQ(KindOf([&] { orvik::DecodeInquiry(Bytes(size)); }), ErrorKind::kBadAnswer);
    EXPECT_EQ(orvik::DecodeInquiry(Bytes(36)).vendor, "");
    EXPECT_EQ(orvik::DecodeInquiry(Bytes(65536)).vendor, "");
}

TEST(Scsi, CapacityData) {
    const auto capacity = orvik::DecodeCapacity(MakeBytes({0, 1, 0x86, 0x9F, 0, 0, 2, 0}));
    EXPECT_EQ(capacity.blockCount, 100'000U);
    EXPECT_EQ(capacity.blockLength, 512U);
    const auto largest =
        orvik::DecodeCapacity(MakeBytes({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0}));
    EXPECT_EQ(largest.blockCount, std::uint64_t{1} << 32);
    EXPECT_EQ(largest.blockLength, 0xFFFFFFFFU);
    EXPECT_EQ(KindOf([] { orvik::DecodeCapacity(Bytes(7)); }), ErrorKind::kBadAnswer);
    EXPECT_EQ(KindOf([] { orvik::DecodeCapacity(Bytes(8)); }), ErrorKind::kBadAnswer);
}

}  // namespace
