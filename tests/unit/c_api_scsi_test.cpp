// The C interface: SCSI commands and their data.

#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "orvik/orvik.h"

namespace {

std::string Hex(const std::uint8_t* bytes, std::size_t count) {
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        constexpr char kDigits[] = "0123456789ABCDEF";
        text += {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 0xF]};
    }
    return text;
}

TEST(CApiScsi, CommandsHaveTheirBytesAndNoMore) {
    std::uint8_t cdb[9] = {};
    const auto made = [&](orvik_status status, std::size_t length) {
        EXPECT_EQ(status, ORVIK_OK);
        EXPECT_EQ(cdb[length], 0xEE) << "written behind the end";
        return Hex(cdb, length);
    };
    const auto clear = [&] { std::memset(cdb, 0xEE, sizeof(cdb)); };
    clear();
    EXPECT_EQ(made(orvik_cdb_inquiry(cdb), 6), "120000002400");
    clear();
    EXPECT_EQ(made(orvik_cdb_test_unit_ready(cdb), 6), "000000000000");
    clear();
    EXPECT_EQ(made(orvik_cdb_read_capacity(cdb), 8), "2500000000000000");
    clear();
    EXPECT_EQ(made(orvik_cdb_request_sense(cdb), 6), "03000000FC00");
    clear();
    EXPECT_EQ(made(orvik_cdb_read6(0x12345, 128, cdb), 6), "080123458000");
    clear();
    EXPECT_EQ(made(orvik_cdb_write6(0x12345, 255, cdb), 6), "0A012345FF00");
    clear();
    EXPECT_EQ(orvik_cdb_read6(0, 0, cdb), ORVIK_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(orvik_cdb_read6(0x1FFFFF, 2, cdb), ORVIK_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(orvik_cdb_write6(0, 256, cdb), ORVIK_ERROR_INVALID_ARGUMENT);
    EXPECT_EQ(cdb[0], 0xEE);
}

TEST(CApiScsi, DataIsDecoded) {
    std::string data("\x05\x80\0\0\0\0\0\0Orvik   Virtual Camera\x01 1.25", 36);
    orvik_inquiry inquiry{};
    inquiry.size = sizeof(inquiry);
    EXPECT_EQ(orvik_decode_inquiry(data.data(), 36, &inquiry), ORVIK_OK);
    EXPECT_EQ(inquiry.device_type, 5);
    EXPECT_EQ(inquiry.removable, 1);
    EXPECT_STREQ(inquiry.vendor, "Orvik");
    EXPECT_STREQ(inquiry.product, "Virtual Camera?");
    EXPECT_STREQ(inquiry.revision, "1.25");
    data.replace(8, 28, "VendorXXProductXXXXXXXXXRevX");
    EXPECT_EQ(orvik_decode_inquiry(data.data(), 36, &inquiry), ORVIK_OK);
    EXPECT_STREQ(inquiry.vendor, "VendorXX");
    EXPECT_STREQ(inquiry.product, "ProductXXXXXXXXX");
    EXPECT_STREQ(inquiry.revision, "RevX");
    EXPECT_EQ(orvik_decode_inquiry(data.data(), 35, &inquiry), ORVIK_ERROR_BAD_ANSWER);

    const std::uint8_t blocks[] = {0, 0, 0x07, 0xFF, 0, 0, 2, 0};
    orvik_capacity capacity{};
    capacity.size = sizeof(capacity);
    EXPECT_EQ(orvik_decode_capacity(blocks, 8, &capacity), ORVIK_OK);
    EXPECT_EQ(capacity.block_count, 2048u);
    EXPECT_EQ(capacity.block_length, 512u);
    EXPECT_EQ(orvik_decode_capacity(blocks, 7, &capacity), ORVIK_ERROR_BAD_ANSWER);

    const std::uint8_t deferred[] = {0x71, 0, 0x06, 0, 0, 0, 0, 6, 0, 0, 0, 0, 0x28, 0x01};
    orvik_sense sense{};
    sense.size = sizeof(sense);
    EXPECT_EQ(orvik_decode_sense(deferred, std::size(deferred), &sense), ORVIK_OK);
    EXPECT_EQ(sense.key, 6);
    EXPECT_EQ(sense.code, 0x28);
    EXPECT_EQ(sense.qualifier, 1);
    EXPECT_EQ(sense.deferred, 1);
    EXPECT_EQ(orvik_decode_sense(deferred, 7, &sense), ORVIK_ERROR_BAD_ANSWER);
}

}  // namespace
